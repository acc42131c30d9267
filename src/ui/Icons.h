#pragma once

#include <QIcon>
#include <QString>

namespace zandor {

// The application's image of that name ("toolbar_play", "toolbar_record", "zandor", ...), sharp at any
// size; glyphs take the colour of the application's palette when drawn. A null icon for an unknown
// name. GUI thread only.
QIcon icon(const QString& name);

} // namespace zandor
