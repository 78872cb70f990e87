// Small operations that reach outside the process. Main thread; the ones that run a command block
// until it ends. None of them logs. Text from outside must not be passed to a command unchecked:
// IsPortableName tells what may.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace vardell {

// The process id of the first process whose line in `ps` holds the name; -1 where there is none.
// Any process that merely mentions the name matches as well.
std::int32_t GetLoginItemPid();
std::int32_t GetServerPid();
std::int32_t GetWindowServerPid();

// The second column of the first line of a process list, or -1.
std::int32_t PidFromProcessList(const QByteArray& listing);

struct CommandCloser {
  void operator()(std::FILE* stream) const { ::pclose(stream); }
};
using CommandOutput = std::unique_ptr<std::FILE, CommandCloser>;

// The command's standard output, or null. A command that is empty, cannot be encoded or holds a
// zero is not run.
CommandOutput OpenCommandOutput(const QString& command);

// What system(3) returns; 0 for a command that is not run.
std::int32_t RunShellCommand(const QString& command);

// True for one to 255 letters, digits, periods, underscores and hyphens (ASCII) that begin with no
// hyphen and are neither "." nor "..": what POSIX calls a portable user name.
bool IsPortableName(const QString& name);

// A zero-filled buffer of three bytes for each UTF-16 unit and four more, with the text in it; null
// for a null string. `outLength` (optional) gets the number of bytes, 0 for text that cannot be
// encoded.
std::unique_ptr<char[]> CopyUTF8CString(const QString& string, std::size_t* outLength = nullptr);

// Creates the item in its parent folder, which must exist. 0, also where an item of that name
// exists already; kCreateNotTried where URL, name or parent are none; else a File Manager code. On
// success `outPath` (optional) is the item's path.
inline constexpr std::int32_t kCreateNotTried = -4960;
[[nodiscard]] std::int32_t CreateDirectoryAtURL(const QUrl& url, QString* outPath = nullptr);
[[nodiscard]] std::int32_t CreateFileAtURL(const QUrl& url, QString* outPath = nullptr);

inline constexpr std::uint64_t kWholeFile = ~std::uint64_t{0};
inline constexpr std::int16_t kReadWritePermission = 3;
inline constexpr std::int32_t kMapNotOpened = -19;

// Maps `length` bytes of a regular file, shared; writable with kReadWritePermission. 0, also where
// the mapping itself failed: then `outLength` is 0, and only otherwise may the address be used. The
// caller unmaps. Bytes beyond the file's end, or cut off later, are not there to be touched.
[[nodiscard]] std::int32_t MapFileIntoMemory(const QString& path, std::uint64_t length,
                                             void** outAddress, std::uint64_t* outLength,
                                             std::int16_t permission);

}  // namespace vardell
