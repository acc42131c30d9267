#include "Plugin.h"

#include "base/Log.h"
#include "base/RegularFile.h"

#include <QFile>
#include <QXmlStreamReader>

#include <limits>

namespace zandor {

Plugin::Plugin(QString file, bool fromUser) : m_file(std::move(file)), m_fromUser(fromUser) {}

QString Plugin::pluginFile() const {
    return m_file + QStringLiteral("/plugin.xml");
}

QString Plugin::resourcePath(const QString& name) const {
    return m_file + QStringLiteral("/Resources/") + name;
}

Result<QByteArray> Plugin::readDescriptor(const QString& path) {
    const std::string file = QFile::encodeName(path).toStdString();
    const Result<std::string> contents = RegularFile::read(file, MaximumDescriptorBytes);
    if (!contents) {
        return Error::other("cannot read", file, RegularFile::describe(contents.error()));
    }
    return QByteArray::fromStdString(*contents);
}

QString Plugin::refusal(const Error& error) {
    return QStringLiteral("%1: %2").arg(QFile::decodeName(QByteArray::fromStdString(error.path())),
                                        QString::fromStdString(error.detail()));
}

bool Plugin::parse() {
    const Result<QByteArray> bytes = readDescriptor(pluginFile());
    if (!bytes) {
        logs::layouts.warning("Could not parse plugin: %s", qUtf8Printable(refusal(bytes.error())));
        return false;
    }
    return parse(*bytes);
}

bool Plugin::parse(const QByteArray& descriptor) {
    QXmlStreamReader reader(descriptor);
    // Element and attribute names are taken as written, prefixes included.
    reader.setNamespaceProcessing(false);
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            // An entity may stand for thousands of characters and be used thousands of times: a
            // small file that expands to gigabytes. Descriptors have no use for them.
            if (!reader.entityDeclarations().isEmpty()) {
                reader.raiseError(QStringLiteral("a plugin.xml may not declare entities"));
            }
            break;
        case QXmlStreamReader::StartElement:
            didStartElement(reader.qualifiedName().toString(), reader.attributes());
            if (const QString why = refusal(); !why.isEmpty()) {
                reader.raiseError(why);
            }
            break;
        case QXmlStreamReader::Characters:
            foundCharacters(reader.text());
            break;
        case QXmlStreamReader::EndElement:
            didEndElement(reader.qualifiedName().toString());
            break;
        default:
            break;
        }
    }
    if (reader.hasError()) {
        logs::layouts.warning(
            "Could not parse plugin: %s (line %lld, column %lld)", qUtf8Printable(reader.errorString()),
            static_cast<long long>(reader.lineNumber()), static_cast<long long>(reader.columnNumber()));
        return false;
    }
    return true;
}

void Plugin::didStartElement(const QString&, const QXmlStreamAttributes&) {
    m_workingString = QString();
}

void Plugin::foundCharacters(QStringView text) {
    m_workingString.append(text);
}

void Plugin::didEndElement(const QString& name) {
    if (name == QLatin1String("name")) {
        m_name = m_workingString;
    } else if (name == QLatin1String("importance")) {
        m_importance = integerValue(m_workingString);
    }
    m_workingString = QString();
}

qint64 Plugin::integerValue(QStringView text) {
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace()) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
        negative = text[i] == u'-';
        ++i;
    }
    // Accumulated as a negative number, whose range is one larger.
    constexpr qint64 lowest = std::numeric_limits<qint64>::min();
    qint64 value = 0;
    bool overflow = false;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
        int digit = text[i].unicode() - u'0';
        if (value < (lowest + digit) / 10) {
            overflow = true;
        } else {
            value = value * 10 - digit;
        }
    }
    if (overflow) {
        return negative ? lowest : std::numeric_limits<qint64>::max();
    }
    if (!negative) {
        return value == lowest ? std::numeric_limits<qint64>::max() : -value;
    }
    return value;
}

} // namespace zandor
