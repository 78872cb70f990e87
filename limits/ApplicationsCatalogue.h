// The catalogue of installed applications: an array of dictionaries with the strings "URL" (a
// path), "Name" and "Identifier", kept in the application's preferences under "Applications". The
// first row is the computer, whose identifier is the login window's; the others follow by name,
// and after them those that have none. Nothing of the agent's work needs it: it is for choosing an
// application to limit. Main thread only; blocks for as long as the seams do.
#pragma once

#include <QString>
#include <QVariant>
#include <cstdint>

#include "platform/ApplicationPreferences.h"
#include "platform/InstalledApplications.h"

namespace vardell {

inline constexpr char kApplicationsKey[] = "Applications";

// Results of AddApplicationToCatalogue.
inline constexpr std::int32_t kApplicationAdded = 0;
inline constexpr std::int32_t kNoApplication = -1;
inline constexpr std::int32_t kApplicationPresent = -2;

// True when a catalogue is stored: an array, whatever is in it.
[[nodiscard]] bool HasApplicationsCatalogue(ApplicationPreferences& preferences);

// Builds the catalogue and synchronises the preferences, unless one is stored. It has what lies in
// the Applications folders and in the folders directly inside, each identifier once.
void BuildApplicationsCatalogue(InstalledApplications& installed,
                                ApplicationPreferences& preferences);

// The stored catalogue, built first where there is none.
[[nodiscard]] QVariantList CopyApplicationsCatalogue(InstalledApplications& installed,
                                                     ApplicationPreferences& preferences);

// Whether a row has that identifier, in whichever letter case.
[[nodiscard]] bool CatalogueContainsIdentifier(const QVariantList& catalogue,
                                               const QString& identifier);

// Adds what is installed at the path: an application, offered by the desktop or not. Builds the
// catalogue first where none is stored. The preferences are not synchronised: that is left to the
// caller.
[[nodiscard]] std::int32_t AddApplicationToCatalogue(InstalledApplications& installed,
                                                     ApplicationPreferences& preferences,
                                                     const QString& path);

// Builds the catalogue anew and synchronises the preferences: newly installed applications come in,
// names are as they are now, and of the rows that a scan does not find those stay whose application
// still exists: they were added.
void RebuildApplicationsCatalogue(InstalledApplications& installed,
                                  ApplicationPreferences& preferences);

// Below, at or above 0, by "Name" in whichever letter case; 0 where either has none.
[[nodiscard]] int CompareCatalogueNames(const QVariantMap& one, const QVariantMap& other);

// The row that an application gets; absent where nothing identifies it, or where the identifier or
// the path is no text that can be stored.
[[nodiscard]] std::optional<QVariantMap> MakeCatalogueRow(const ApplicationInfo& application);

}  // namespace vardell
