#pragma once

#include <QString>

#include <functional>

namespace zandor {

// File names stamped to the second ("Capture <date>", "Replay <date>") meet when two are made in the
// same second; the later one is numbered instead of taking the earlier one's place.
class NumberedName {
public:
    // The highest number tried; past it the last name is given even when taken.
    static constexpr int Last = 99;

    // `stem` itself when `taken` says it is free, else the first free of "<stem> 2" to "<stem> 99".
    static QString first(const QString& stem, const std::function<bool(const QString& name)>& taken);
    // The first free file name "<stem>.<suffix>", "<stem> 2.<suffix>", ...
    static QString file(const QString& stem, const QString& suffix);
};

} // namespace zandor
