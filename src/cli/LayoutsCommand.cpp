#include "LayoutsCommand.h"

#include "base/CommandLine.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/Board.h"
#include "layouts/LayoutController.h"
#include "layouts/PluginController.h"
#include "session/CaptureSession.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace zandor {

namespace {

QJsonValue backgroundBytes(const CaptureLayout& layout) {
    if (!layout.background()) {
        return QJsonValue::Null;
    }
    // The bytes the canvas is painted with: each component times 255, truncated.
    auto byte = [](double component) {
        return static_cast<int>(static_cast<int64_t>(component * 255.0) & 0xFF);
    };
    const Color& c = *layout.background();
    return QJsonArray{byte(c.red), byte(c.green), byte(c.blue)};
}

QJsonObject describe(const CaptureLayout& layout) {
    QJsonObject entry{{"name", layout.name()},
                      {"width", static_cast<qint64>(layout.width())},
                      {"height", static_cast<qint64>(layout.height())},
                      {"resizable", layout.isResizable()},
                      {"background", backgroundBytes(layout)},
                      {"origin", layout.fromUser() ? "user" : "application"},
                      {"importance", QJsonValue::Null}};
    if (layout.plugin()) {
        entry["importance"] = layout.plugin()->importance();
    }
    return entry;
}

QString line(const QJsonObject& entry) {
    QString background = QStringLiteral("none");
    if (entry["background"].isArray()) {
        const QJsonArray bytes = entry["background"].toArray();
        background =
            QStringLiteral("%1,%2,%3").arg(bytes[0].toInt()).arg(bytes[1].toInt()).arg(bytes[2].toInt());
    }
    return QStringList{entry["name"].toString(),
                       QString::number(entry["width"].toInteger()),
                       QString::number(entry["height"].toInteger()),
                       entry["resizable"].toBool() ? QStringLiteral("resizable") : QStringLiteral("fixed"),
                       background,
                       entry["origin"].toString(),
                       entry["importance"].isNull() ? QStringLiteral("-")
                                                    : QString::number(entry["importance"].toInteger())}
        .join(u'\t');
}

} // namespace

int LayoutsCommand::run(const CommandLine& options) {
    auto board = createBoard(options.value("board").value_or("usb"));
    if (!board) {
        std::fprintf(stderr, "zandor-cli layouts: %s\n", session::boardChoiceMessage(board.error()).c_str());
        return 2;
    }
    LayoutController& catalogue = LayoutController::instance();
    catalogue.setDevice(CaptureDevice::create(std::move(*board)));

    QJsonArray entries;
    for (const auto& layout : catalogue.layouts()) {
        entries.append(describe(*layout));
    }
    for (const auto& layout : catalogue.screenLayouts()) {
        entries.append(describe(*layout));
    }
    if (options.flag("json")) {
        std::fputs(QJsonDocument(entries).toJson(QJsonDocument::Indented).constData(), stdout);
    } else {
        for (const auto& entry : entries) {
            std::printf("%s\n", qUtf8Printable(line(entry.toObject())));
        }
    }
    return 0;
}

} // namespace zandor
