// Every bound on what comes from outside (the network, a file, the environment) has its name here.
// Code checks the bound before it allocates.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vardell {

// Property lists: the largest document that is parsed, and its deepest nesting.
inline constexpr std::size_t kMaxPropertyListBytes = 8u << 20;
inline constexpr int kMaxPropertyListDepth = 64;

// Archives of values: the serialised bytes of one, the values and dictionary keys in it, and, where
// an archive shares texts, what they would take apart (two bytes for a UTF-16 unit, one for a byte
// of data). Their nesting is a property list's.
inline constexpr std::size_t kMaxArchiveBytes = 64u << 20;
inline constexpr std::uint64_t kMaxArchiveNodes = 4u << 20;
inline constexpr std::uint64_t kMaxArchiveTextBytes = 128u << 20;

// Pictures: the largest file or command output that is decoded, and the memory it may take decoded.
inline constexpr std::size_t kMaxPictureBytes = 8u << 20;
inline constexpr std::size_t kMaxPictureCommandBytes = 1u << 20;
inline constexpr int kMaxPictureMegabytes = 64;
// The longest URL of a dropped file.
inline constexpr std::size_t kMaxDroppedUrlBytes = 64u << 10;

// The wire: the largest request frame that a Server takes (whole frame), and the most of a reply
// that an Agent keeps (body and length field); what comes beyond is read and dropped.
inline constexpr std::uint32_t kMaxRequestFrameBytes = 16u << 10;
inline constexpr std::size_t kMaxReplyBytes = 1u << 20;

// Strings in the raw-buffer form of the codec, and user names and identifiers that a Server stores.
inline constexpr std::int32_t kMaxBufferStringBytes = 1024;
inline constexpr std::size_t kMaxNameBytes = 1024;

// Services and domains that one search keeps; an announcing network cannot fill the memory.
inline constexpr std::size_t kMaxFoundServices = 1024;

// Desktop entries: items looked at below one folder, how deep, and the largest file that is read.
inline constexpr std::size_t kMaxSystemDesktopEntries = 16384;
inline constexpr std::size_t kMaxUserDesktopEntries = 1024;
inline constexpr int kMaxDesktopEntryDepth = 4;
inline constexpr std::size_t kMaxDesktopEntryBytes = 128u << 10;

// The measured home folder: the names of folders that wait to be entered (about three million), and
// the longest way down.
inline constexpr std::size_t kMaxWaitingFolderNameBytes = 64u << 20;
inline constexpr std::size_t kMaxFolderDepth = 1000000;

// Processes: what is read of one file of a process, the processes that one scan looks at, ancestors
// that are followed, and applications whose end is waited for with a descriptor each (the scan
// finds the ends of all others).
inline constexpr std::size_t kMaxProcessFileBytes = 64u << 10;
inline constexpr std::size_t kMaxScannedProcesses = 65536;
inline constexpr int kMaxAncestors = 256;
inline constexpr std::size_t kMaxProcessDescriptors = 256;

// Applications that the agent remembers to pay for when a Server that was lost is back.
inline constexpr std::size_t kMaxLostApps = 256;

// Sessions whose applications are listed at once, and what one of them may tell.
inline constexpr std::size_t kMaxSessionAgents = 64;
inline constexpr std::size_t kMaxSessionViewBytes = 4u << 20;

// The Server: connections it keeps at once, from one address, of one user of its machine, and the
// largest body of a request on its control socket.
inline constexpr std::size_t kMaxAgentConnections = 12000;
inline constexpr std::size_t kMaxConnectionsPerAddress = 1024;
inline constexpr std::size_t kMaxConnectionsOfUser = 64;
inline constexpr std::size_t kMaxControlConnections = 64;
inline constexpr std::size_t kMaxControlConnectionsOfUser = 16;
inline constexpr std::size_t kMaxControlBodyBytes = 64u << 10;
inline constexpr std::size_t kMaxControlHeaderBytes = 8u << 10;
// A backup, to the Server and from it.
inline constexpr std::size_t kMaxBackupBytes = 32u << 20;
// The most of an answer that vardellctl takes.
inline constexpr std::size_t kMaxControlReplyBytes = 32u << 20;

// The Server's kill listener.
inline constexpr std::size_t kMaxKillConnections = 512;
inline constexpr std::size_t kMaxKillConnectionsOfUser = 32;

// The Server's log: one text in it, lines of one kind that one user can make appear in a minute,
// and users whose lines are told apart meanwhile.
inline constexpr std::size_t kMaxLogTextBytes = 3000;
inline constexpr int kMaxLogLinesPerMinute = 10;
inline constexpr std::size_t kMaxLogUsers = 64;

// The Server: what waits for one client that does not read, what is kept of the identifiers that it
// fetched lately (their number, and the characters of them all), hosts of one user and identifier,
// changes that wait for a failing disk, and rows of one answer from the ledger.
inline constexpr std::size_t kMaxUnsentReplyBytes = 1u << 20;
inline constexpr std::size_t kMaxRecentFetches = 64;
inline constexpr std::ptrdiff_t kMaxRecentFetchCharacters = 8192;
inline constexpr std::size_t kMaxLanesPerIdentifier = 64;
inline constexpr std::size_t kMaxUnwrittenChanges = 100000;
inline constexpr int kMaxLedgerRows = 1000;
// Changes of agents in one transaction, and what is spooled while the store fails: some hundred
// bytes for each minute of each application.
inline constexpr std::size_t kMaxChangesInBatch = 2000;
inline constexpr std::int64_t kMaxSpoolBytes = 1ll << 30;
inline constexpr std::size_t kMaxSpoolRecordBytes = 64u << 10;

// Top-ups: ranges of dates that are remembered for one limit, and missed dates that roll-over makes
// good at once.
inline constexpr std::size_t kMaxTopUpDateRanges = 64;
inline constexpr int kMaxMissedTopUps = 62;

// Schedules: windows of one day, holidays, all of it as JSON (a request must hold it, and an answer
// many of them), and days ahead in which a window's end is looked for.
inline constexpr std::size_t kMaxScheduleWindows = 8;
inline constexpr std::size_t kMaxScheduleHolidays = 200;
inline constexpr std::size_t kMaxScheduleBytes = 32u << 10;
inline constexpr int kMaxScheduleDaysAhead = 8;

}  // namespace vardell
