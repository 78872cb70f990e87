// How much a folder holds. Any thread; blocks for as long as the walk takes.
#pragma once

#include <QByteArray>
#include <cstdint>
#include <stop_token>

namespace vardell {

// The sizes of all regular files at and beneath `nativePath`, as a person would add them up: the
// lengths of the files, whatever they take on the disk; a file with two names counts twice;
// folders, links, pipes, sockets and devices count nothing. `nativePath` itself may lead through
// symbolic links; beneath it none is followed, and no folder of another file system is entered.
//
// What cannot be read, and what goes while the walk is under way, counts nothing and is no error. A
// sum beyond 2^63 - 1 is 2^63 - 1. Needs neither stack nor descriptors for the depth of the tree;
// what it remembers is bounded by kMaxWaitingFolderNameBytes and kMaxFolderDepth, and folders
// beyond them are not entered. Where `stop` is requested it returns at once with what it has so
// far.
std::uint64_t GetFolderSize(const QByteArray& nativePath, const std::stop_token& stop = {});

// Of the home folder that the account database names for the user: no variable can move it. 0
// where there is none.
std::uint64_t GetHomeFolderSize(const std::stop_token& stop = {});

}  // namespace vardell
