#include "PropertyList.h"

#include <QDateTime>
#include <QTimeZone>

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>

namespace zandor {

namespace {

// Strings, keys, data and iterators that libplist hands out are malloc'd and become ours.
struct MallocFree {
    void operator()(void* p) const { std::free(p); }
};
using MallocString = std::unique_ptr<char, MallocFree>;

// Property-list dates count seconds from 2001-01-01 00:00:00 UTC.
QDateTime dateEpoch() {
    return QDateTime(QDate(2001, 1, 1), QTime(0, 0), QTimeZone::utc());
}

QVariant variantOf(plist_t node);

QVariantList listOf(plist_t array) {
    QVariantList list;
    const uint32_t size = plist_array_get_size(array);
    list.reserve(static_cast<qsizetype>(size));
    for (uint32_t i = 0; i < size; ++i) {
        QVariant item = variantOf(plist_array_get_item(array, i));
        if (item.isValid()) {
            list.append(std::move(item));
        }
    }
    return list;
}

// Calls `visit(key, node)` for every entry of a dictionary, in its order.
template <typename Visit> void forEachEntry(plist_t dictionary, Visit visit) {
    plist_dict_iter rawIterator = nullptr;
    plist_dict_new_iter(dictionary, &rawIterator);
    std::unique_ptr<void, MallocFree> iterator(rawIterator);
    for (;;) {
        char* rawKey = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(dictionary, rawIterator, &rawKey, &node);
        MallocString key(rawKey);
        if (node == nullptr) {
            break;
        }
        visit(QString::fromUtf8(rawKey), node);
    }
}

QVariant variantOf(plist_t node) {
    if (node == nullptr) {
        return {};
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return QVariant(value != 0);
    }
    case PLIST_UINT: {
        // libplist keeps every integer in 64 bits; negative ones come back in two's complement.
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return QVariant(static_cast<qint64>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return QVariant(value);
    }
    case PLIST_STRING: {
        char* raw = nullptr;
        plist_get_string_val(node, &raw);
        MallocString value(raw);
        return QVariant(QString::fromUtf8(raw));
    }
    case PLIST_DATA: {
        char* raw = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &raw, &length);
        MallocString value(raw);
        return QVariant(raw ? QByteArray(raw, static_cast<qsizetype>(length)) : QByteArray(""));
    }
    case PLIST_DATE: {
        int32_t seconds = 0;
        int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return QVariant(dateEpoch().addMSecs(qint64(seconds) * 1000 + microseconds / 1000));
    }
    case PLIST_ARRAY:
        return QVariant(listOf(node));
    case PLIST_DICT: {
        QVariantMap map;
        forEachEntry(node, [&map](const QString& key, plist_t value) {
            QVariant item = variantOf(value);
            if (item.isValid()) {
                map.insert(key, std::move(item));
            }
        });
        return QVariant(map);
    }
    default:
        return {};
    }
}

bool isSignedInteger(int type) {
    return type == QMetaType::Int || type == QMetaType::LongLong || type == QMetaType::Short ||
           type == QMetaType::Long || type == QMetaType::SChar || type == QMetaType::Char;
}

bool isUnsignedInteger(int type) {
    return type == QMetaType::UInt || type == QMetaType::ULongLong || type == QMetaType::UShort ||
           type == QMetaType::ULong || type == QMetaType::UChar;
}

} // namespace

PropertyList::~PropertyList() {
    if (m_node != nullptr) {
        plist_free(m_node);
    }
}

PropertyList& PropertyList::operator=(PropertyList&& other) noexcept {
    if (this != &other) {
        PropertyList old(std::exchange(m_node, other.release()));
    }
    return *this;
}

PropertyList PropertyList::fromXml(const QByteArray& xml) {
    // XML text never holds a NUL byte. libplist takes one into a string or a key, and then aborts on
    // an assertion when the value is read out.
    if (xml.isEmpty() || xml.size() > std::numeric_limits<uint32_t>::max() || xml.contains('\0')) {
        return {};
    }
    plist_t node = nullptr;
    // Leaves the node null when the text is not an XML property list.
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &node);
    return PropertyList(node);
}

QByteArray PropertyList::toXml() const {
    if (m_node == nullptr) {
        return {};
    }
    char* raw = nullptr;
    uint32_t length = 0;
    plist_to_xml(m_node, &raw, &length);
    if (raw == nullptr) {
        return {};
    }
    QByteArray xml(raw, static_cast<qsizetype>(length));
    plist_to_xml_free(raw);
    return xml;
}

PropertyList PropertyList::fromVariant(const QVariant& value) {
    const int type = value.typeId();
    if (type == QMetaType::Bool) {
        return PropertyList(plist_new_bool(value.toBool() ? 1 : 0));
    }
    if (isSignedInteger(type)) {
        // Written back as a signed decimal as long as it is not above the signed range.
        return PropertyList(plist_new_uint(static_cast<uint64_t>(value.toLongLong())));
    }
    if (isUnsignedInteger(type)) {
        return PropertyList(plist_new_uint(value.toULongLong()));
    }
    if (type == QMetaType::Double || type == QMetaType::Float) {
        return PropertyList(plist_new_real(value.toDouble()));
    }
    if (type == QMetaType::QString) {
        return PropertyList(plist_new_string(value.toString().toUtf8().constData()));
    }
    if (type == QMetaType::QByteArray) {
        const QByteArray data = value.toByteArray();
        return PropertyList(plist_new_data(data.constData(), static_cast<uint64_t>(data.size())));
    }
    if (type == QMetaType::QDateTime) {
        const QDateTime date = value.toDateTime();
        if (!date.isValid()) {
            return {};
        }
        // The XML form holds whole seconds. Round down here: libplist would round dates before 2001
        // up towards 2001. It keeps the seconds in 32 bits (1933 to 2069).
        const qint64 milliseconds = dateEpoch().msecsTo(date);
        qint64 seconds = milliseconds / 1000;
        if (milliseconds % 1000 < 0) {
            --seconds;
        }
        seconds = std::clamp<qint64>(seconds, std::numeric_limits<int32_t>::min(),
                                     std::numeric_limits<int32_t>::max());
        return PropertyList(plist_new_date(static_cast<int32_t>(seconds), 0));
    }
    if (type == QMetaType::QVariantList || type == QMetaType::QStringList) {
        PropertyList array(plist_new_array());
        for (const QVariant& item : value.toList()) {
            PropertyList node = fromVariant(item);
            if (node) {
                plist_array_append_item(array.get(), node.release());
            }
        }
        return array;
    }
    if (type == QMetaType::QVariantMap || type == QMetaType::QVariantHash) {
        const QVariantMap map = value.toMap();
        Entries entries;
        entries.reserve(static_cast<size_t>(map.size()));
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            entries.emplace_back(it.key(), it.value());
        }
        return dictionary(entries);
    }
    return {};
}

QVariant PropertyList::toVariant() const {
    return variantOf(m_node);
}

PropertyList PropertyList::dictionary(const Entries& entries) {
    PropertyList dictionary(plist_new_dict());
    for (const auto& [key, value] : entries) {
        PropertyList node = fromVariant(value);
        if (node) {
            plist_dict_set_item(dictionary.get(), key.toUtf8().constData(), node.release());
        }
    }
    return dictionary;
}

bool PropertyList::isDictionary() const {
    return m_node != nullptr && plist_get_node_type(m_node) == PLIST_DICT;
}

PropertyList::Entries PropertyList::entries() const {
    Entries entries;
    if (!isDictionary()) {
        return entries;
    }
    forEachEntry(m_node, [&entries](const QString& key, plist_t node) {
        QVariant value = variantOf(node);
        if (value.isValid()) {
            entries.emplace_back(key, std::move(value));
        }
    });
    return entries;
}

} // namespace zandor
