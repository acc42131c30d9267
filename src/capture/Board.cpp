#include "Board.h"

#include <cstdio>

namespace zandor {

std::string BoardInfo::vendorProduct() const {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x", vendorId, productId);
    return text;
}

std::string BoardInfo::describe() const {
    std::string line = name + " " + vendorProduct() + ", serial " + (serial.empty() ? "(none)" : serial) +
                       ", firmware version " + std::to_string(firmwareVersion);
    if (!usbSpeed.empty()) {
        line += ", " + usbSpeed;
    }
    if (can3D) {
        line += ", can capture 3D";
    }
    if (sendsSound) {
        line += *sendsSound ? ", sends sound" : ", sends no sound";
    }
    return line;
}

} // namespace zandor
