// The languages of the person who runs this program, as desktop entries name them.
#pragma once

#include <QStringList>

namespace vardell {

// Best first, from LANGUAGE, else LC_ALL, LC_MESSAGES or LANG. Each as the keys of entries may have
// it: "sr_RS.UTF-8@latin" gives "sr_RS@latin", "sr_RS", "sr@latin", "sr".
QStringList MessageLanguages();

}  // namespace vardell
