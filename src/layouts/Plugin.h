#pragma once

#include "base/Error.h"

#include <QMetaType>
#include <QString>
#include <QStringView>

#include <memory>

class QXmlStreamAttributes;

namespace zandor {

// A plugin bundle: a folder "<name>.zdplugin" holding the descriptor "plugin.xml" and a
// "Resources" folder. This base class reads the two elements every plugin kind shares, "name" and
// "importance"; a kind adds its own elements by overriding didStartElement.
class Plugin {
public:
    enum Type { NoType = 0, LayoutType = 1 };

    // Reads nothing yet: the descriptor is read by parse().
    Plugin(QString file, bool fromUser);
    virtual ~Plugin() = default;
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    const QString& file() const { return m_file; }
    const QString& name() const { return m_name; }
    void setName(QString name) { m_name = std::move(name); }
    bool fromUser() const { return m_fromUser; }
    qint64 importance() const { return m_importance; }
    virtual int type() const { return NoType; }

    // The descriptor's path: bundle + "/plugin.xml".
    QString pluginFile() const;
    // bundle + "/Resources/" + name; the file is not checked.
    QString resourcePath(const QString& name) const;

    // Reads the descriptor with an event parser. False, logged, when it is unreadable, not a
    // regular file, larger than MaximumDescriptorBytes or not well-formed; whatever was read before
    // the fault stays set.
    bool parse();
    // The same for a descriptor already in memory, as parse() reads it from the file.
    bool parse(const QByteArray& descriptor);

    // A descriptor is a few kilobytes; one larger than this is refused unread.
    static constexpr qint64 MaximumDescriptorBytes = 1024 * 1024;
    // Reads a descriptor file within the limits above; the Error, with what is wrong in its detail,
    // when it is refused.
    static Result<QByteArray> readDescriptor(const QString& path);
    // The log line's text for a descriptor that was refused: "path: what is wrong".
    static QString refusal(const Error& error);

    // The integer at the start of a text: leading white space skipped, an optional sign, then
    // decimal digits up to the first non-digit; 0 when there is no number. Saturates on overflow.
    static qint64 integerValue(QStringView text);

protected:
    // Parser events. An element's text is what follows its last inner start tag, untrimmed.
    virtual void didStartElement(const QString& name, const QXmlStreamAttributes& attributes);
    // Why the descriptor read so far is refused, or nothing; reading stops at a refusal.
    virtual QString refusal() const { return {}; }
    void foundCharacters(QStringView text);
    void didEndElement(const QString& name);

private:
    const QString m_file;
    QString m_name;
    const bool m_fromUser;
    qint64 m_importance = 0;
    QString m_workingString;
};

using PluginPtr = std::shared_ptr<Plugin>;

} // namespace zandor

Q_DECLARE_METATYPE(zandor::PluginPtr)
