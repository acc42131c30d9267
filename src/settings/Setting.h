#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace zandor {

class PreferencesController;

// What a stored value of a setting must be to count, and what the built-in defaults hold of it.
template <class T> struct SettingRules {
    // The smallest and the largest value taken.
    std::optional<std::pair<T, T>> range = {};
    // The only values taken; asked for each time (the presets, the frame rates).
    std::function<QStringList()> choices = {};
    // Any further condition.
    std::function<bool(const T&)> check = {};
    // What the built-in defaults of a new store hold, when not the default read: none leaves the
    // key absent.
    std::function<std::optional<T>()> seed = {};
    // The built-in defaults leave the key absent until the user changes it.
    bool absentFromDefaults = false;
};

// A setting as the built-in defaults see it, whatever its kind.
struct SeededSetting {
    QString key;
    std::function<QVariant()> seed; // invalid: absent
};

// Every setting declared, in the order of declaration: the order of the built-in defaults.
std::vector<SeededSetting>& declaredSettings();

// One user setting: its key in the preferences store, its default, and what a stored value must
// be to count. A stored value of the wrong kind, out of range or not among the choices reads as the
// default, so that a hand-edited or damaged preferences file can neither send files elsewhere nor
// start something that cannot work. Whole numbers are stored as qint64, as the property list holds
// them. Settings are declared once, for the whole run (see Settings.h), and never copied.
template <class T> class Setting {
    static_assert(std::is_same_v<T, bool> || std::is_same_v<T, int> || std::is_same_v<T, QString>);

public:
    Setting(QString key, T fallback, SettingRules<T> rules = {})
        : Setting(std::move(key), std::function<T()>([value = std::move(fallback)] { return value; }),
                  std::move(rules)) {}
    // A default worked out when it is needed (the user's Desktop folder).
    Setting(QString key, std::function<T()> fallback, SettingRules<T> rules = {})
        : key(std::move(key)), m_fallback(std::move(fallback)), m_rules(std::move(rules)) {
        declaredSettings().push_back({this->key, [this]() -> QVariant {
                                          if (m_rules.absentFromDefaults) {
                                              return {};
                                          }
                                          if (!m_rules.seed) {
                                              return stored(this->fallback());
                                          }
                                          const auto seed = m_rules.seed();
                                          return seed ? stored(*seed) : QVariant();
                                      }});
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    const QString key;

    T fallback() const { return m_fallback(); }
    // The smallest and the largest value taken, for a setting that has them.
    const std::optional<std::pair<T, T>>& range() const { return m_rules.range; }
    QStringList choices() const { return m_rules.choices ? m_rules.choices() : QStringList(); }

    // Whether `value` counts: of the setting's kind and within its range, choices and check.
    bool accepts(const QVariant& value) const {
        const auto typed = typedValue(value);
        return typed && acceptsValue(*typed);
    }
    bool acceptsValue(const T& value) const {
        if (m_rules.range && (value < m_rules.range->first || m_rules.range->second < value)) {
            return false;
        }
        if constexpr (std::is_same_v<T, QString>) {
            if (m_rules.choices && !m_rules.choices().contains(value)) {
                return false;
            }
        }
        return !m_rules.check || m_rules.check(value);
    }

    // The stored value when it counts, else the default.
    T read(const PreferencesController& store) const;
    void write(PreferencesController& store, const T& value) const;

    static QVariant stored(const T& value) {
        if constexpr (std::is_same_v<T, int>) {
            return QVariant(qint64(value));
        } else {
            return QVariant(value);
        }
    }

private:
    static std::optional<T> typedValue(const QVariant& value) {
        if constexpr (std::is_same_v<T, bool>) {
            if (value.typeId() == QMetaType::Bool) {
                return value.toBool();
            }
        } else if constexpr (std::is_same_v<T, int>) {
            if (value.typeId() == QMetaType::LongLong && value.toLongLong() >= INT32_MIN &&
                value.toLongLong() <= INT32_MAX) {
                return static_cast<int>(value.toLongLong());
            }
        } else if (value.typeId() == QMetaType::QString) {
            return value.toString();
        }
        return std::nullopt;
    }

    std::function<T()> m_fallback;
    SettingRules<T> m_rules;
};

} // namespace zandor
