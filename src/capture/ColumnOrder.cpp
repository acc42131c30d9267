#include "ColumnOrder.h"

namespace zandor {

namespace {
constexpr uint64_t TopColumns = 400;
constexpr uint64_t BottomColumns = 320;
// The top columns the new boards send before the bottom screen's begin.
constexpr uint64_t LeadingTopColumns = 80;
} // namespace

uint64_t screenColumns(ScreenId screen) {
    return screen == ScreenId::Bottom ? BottomColumns : TopColumns;
}

uint64_t pictureBytes(ColumnOrder order) {
    const uint64_t columns =
        order == ColumnOrder::Ft601ThreeD ? 2 * TopColumns + BottomColumns : TopColumns + BottomColumns;
    return columns * ColumnBytes;
}

uint64_t rawColumn(ColumnOrder order, ScreenId screen, uint64_t x) {
    switch (order) {
    case ColumnOrder::Classic:
        return screen == ScreenId::Bottom ? TopColumns + x : x;
    case ColumnOrder::Ft601:
        if (screen == ScreenId::Bottom) {
            return LeadingTopColumns + 2 * x;
        }
        return x < LeadingTopColumns ? x : LeadingTopColumns + 2 * (x - LeadingTopColumns) + 1;
    case ColumnOrder::Ft601ThreeD: {
        const uint64_t eye = screen == ScreenId::TopRight ? 1 : 0;
        constexpr uint64_t Triples = 2 * LeadingTopColumns;
        if (screen == ScreenId::Bottom) {
            // The last triple holds the bottom column in its middle.
            return x + 1 == BottomColumns ? Triples + 3 * x + 1 : Triples + 3 * x + 2;
        }
        if (x < LeadingTopColumns) {
            return 2 * x + eye;
        }
        const uint64_t k = x - LeadingTopColumns;
        if (k + 1 == BottomColumns) {
            return Triples + 3 * k + 2 * eye;
        }
        return Triples + 3 * k + eye;
    }
    }
    return x;
}

} // namespace zandor
