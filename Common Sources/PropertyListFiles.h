// Settings files: property lists in XML files, and where the product keeps its own.
// The operations read and write small files; main thread of a program. None of them says anything:
// failures are absent results, false, or a status other than 0.
#pragma once

#include <QString>
#include <QUrl>
#include <QVariant>
#include <cstdint>
#include <memory>
#include <optional>

namespace vardell {

inline constexpr char kGlobalSettingsPath[] =
    "/Library/Application Support/Vardell 5/com.brenwick.vardell5.plist";
inline constexpr char kApplicationSupportPath[] = "/Library/Application Support";

// File names of this many UTF-16 units or more are refused, although 255 would fit their record.
inline constexpr qsizetype kFileNameUnits = 255;

// Absent for an empty URL, a file that cannot be loaded (after one more attempt at once), is no
// regular file or larger than kMaxPropertyListBytes, and for one that is no property list.
[[nodiscard]] std::optional<QVariant> ReadPropertyListFromURL(const QUrl& url);
[[nodiscard]] std::optional<QVariant> ReadPropertyListFromPath(const QString& path);

// `inPlace`: straight into the target. Otherwise into a file with the further extension ".tmp",
// which then takes the target's name: the target is deleted before that, whether the temporary file
// was written or not, so that a failed write leaves no file there. 0; -1 where the value cannot be
// written, the target names no file of this machine, or the temporary file was not made; else the
// code of the write (in place) or of the renaming, see FileSystem.h.
[[nodiscard]] std::int32_t WritePropertyListToURL(const QVariant& propertyList, const QUrl& target,
                                                  bool inPlace);
[[nodiscard]] std::int32_t WritePropertyListToPath(const QVariant& propertyList,
                                                   const QString& path, bool inPlace);

// Sets one key of a dictionary file, in place. A file that is missing or holds no dictionary
// becomes one with this key alone. True when the file was written.
[[nodiscard]] bool SetPropertyListFileValue(const QString& path, const QString& key,
                                            const QVariant& value);
[[nodiscard]] bool SetGlobalSettingsValue(const QString& key, const QVariant& value);

// A directory's URL. Makes the Application Support folder, but not the one within it.
QUrl CopySupportFolderURL();

// The messages file's path in UTF-8, zero-terminated; null where it cannot be made.
std::unique_ptr<char[]> CopyMessagesFilePath();

// The last component of the URL's path. 0; -1 where there is none, -108 where it is too long; `out`
// is empty then.
[[nodiscard]] std::int32_t GetFileNameFromURL(const QUrl& url, QString* out);

}  // namespace vardell
