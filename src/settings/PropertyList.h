#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <utility>
#include <vector>

// libplist's handle type, declared here so that users of the wrapper need not see libplist's header.
typedef void* plist_t;

namespace zandor {

// Owns one libplist node tree and frees it in one place. Nodes handed to a container node change
// owner (release()); nodes reached inside a tree stay owned by that tree.
//
// Values map to QVariant as: boolean - bool, integer - qint64, real - double, string - QString,
// data - QByteArray, date - QDateTime (UTC), array - QVariantList, dictionary - QVariantMap.
class PropertyList {
public:
    // Key and value pairs of a dictionary, in the dictionary's order.
    using Entries = std::vector<std::pair<QString, QVariant>>;

    PropertyList() = default;
    explicit PropertyList(plist_t node) : m_node(node) {}
    ~PropertyList();
    PropertyList(const PropertyList&) = delete;
    PropertyList& operator=(const PropertyList&) = delete;
    PropertyList(PropertyList&& other) noexcept : m_node(other.release()) {}
    PropertyList& operator=(PropertyList&& other) noexcept;

    plist_t get() const { return m_node; }
    // Gives up ownership, e.g. to a container node that now frees it.
    plist_t release() { return std::exchange(m_node, nullptr); }
    explicit operator bool() const { return m_node != nullptr; }

    // Parses an XML property list; holds nothing when the text is not one.
    static PropertyList fromXml(const QByteArray& xml);
    // The XML form; empty when nothing is held.
    QByteArray toXml() const;

    // The node for a value; holds nothing when the value has no property-list form.
    static PropertyList fromVariant(const QVariant& value);
    // The value of the held node; invalid when nothing is held or the node has no QVariant form.
    QVariant toVariant() const;

    // A dictionary holding the entries in the given order. Entries without a property-list form are
    // left out.
    static PropertyList dictionary(const Entries& entries);
    bool isDictionary() const;
    // The entries of a dictionary in its order; empty for any other node. Entries without a QVariant
    // form are left out.
    Entries entries() const;

private:
    plist_t m_node = nullptr;
};

} // namespace zandor
