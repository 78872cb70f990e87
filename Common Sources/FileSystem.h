// Files named by paths or URLs, with the status codes that the operations on them report.
// For PropertyListFiles, ShellHelpers and the images. Any thread; a name that leads to a pipe, a
// device or a folder is refused without blocking.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace vardell {

// Codes of the URL operations.
inline constexpr std::int32_t kUrlUnknownError = -10;
inline constexpr std::int32_t kUrlNotFound = -12;
inline constexpr std::int32_t kUrlAccessViolation = -13;

// Codes of the File Manager.
inline constexpr std::int32_t kFileIoError = -36;
inline constexpr std::int32_t kFileBadName = -37;
inline constexpr std::int32_t kFileNotFound = -43;
inline constexpr std::int32_t kFileNameExists = -48;
inline constexpr std::int32_t kFilePermission = -54;
inline constexpr std::int32_t kFileDiskFull = -34;
inline constexpr std::int32_t kFileNameTooLong = -108;

std::int32_t FileManagerStatus(int errorNumber);

// A file URL for the path, which is never taken as a directory's. Empty for an empty path.
QUrl FileUrl(const QString& path);

// The path in UTF-8 as system calls take it. Absent for a URL that names no file of this machine,
// an empty path, one with a zero in it, and one that cannot be encoded.
std::optional<QByteArray> NativePath(const QUrl& url);
std::optional<QByteArray> NativePath(const QString& path);

// UTF-8, or absent where the text holds a lone surrogate.
std::optional<QByteArray> EncodeUTF8(QStringView text);

// The whole of a regular file of at most `limit` bytes; absent for any other.
std::optional<QByteArray> LoadFile(const QByteArray& nativePath, std::size_t limit);

// Creates or overwrites the file, readable by everybody. 0 or a URL operation's code.
[[nodiscard]] std::int32_t StoreFile(const QByteArray& nativePath, const QByteArray& bytes);

}  // namespace vardell
