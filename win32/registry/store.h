// The registry of one machine root: the tree in memory and its file registry.reg, which other processes and
// editors change too.
#pragma once

#include "win32/files/file_watch.h"
#include "win32/files/root_files.h"
#include "win32/registry/tree.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace win32 {

class REG_STORE {
public:
    // The store of the machine root that is in force now, or of a root that MachineRoot has given. It lives as long as
    // the process.
    static REG_STORE& Current();
    static REG_STORE& Of(const std::string& root);

    explicit REG_STORE(std::string file);
    ~REG_STORE();
    REG_STORE(const REG_STORE&) = delete;
    REG_STORE& operator=(const REG_STORE&) = delete;

    // The tree as the file holds it now; costs one stat while the file is unchanged, and nothing while inotify says so
    // of a file that is watched. A file that vanished, cannot be read, does not parse or whose writer may not be done
    // leaves the last good tree in force. Null: there never was one; `error` then says why (ERROR_BADDB: it does not
    // parse; ERROR_SHARING_VIOLATION: another program writes it, and has gone on doing so for seconds). No file at all
    // is an empty registry.
    std::shared_ptr<const REG_TREE> Tree(DWORD* error = nullptr);

    // As long as it holds, Tree gives what it gives from now on; the default, where no watch says so.
    FILE_WATCH::MARK Mark();

    // Changes the file: read again under the lock file, changed by `edit`, written beside and renamed over the old; an
    // edit that changes nothing writes nothing. `edit` is called again with another tree when another program changed
    // the file meanwhile.
    // Gives what `edit` gives (anything but ERROR_SUCCESS writes nothing), or why the file could not be changed:
    // ERROR_BADDB while it does not parse, ERROR_SHARING_VIOLATION when a writer who does not use the lock, an editor
    // or a shell, has not been done for three seconds, ERROR_LOCK_VIOLATION when another process sits on the lock.
    DWORD Change(const std::function<DWORD(REG_TREE&)>& edit);

    // Calls `changed` after each change of the tree, on the thread that made or noticed it and with no lock held. The
    // first call begins to watch the file; it throws when the watcher thread cannot be started.
    void Watch(std::function<void()> changed);
    bool IsWatched();

    // What is wrong with the file, one UTF-8 line without a line break; empty: nothing. Taken, it comes again only
    // when it is another.
    std::string Problem();
    std::string TakeProblem();

private:
    using TIME = std::chrono::milliseconds;  // since the machine was started

    struct FOUND;

    bool Fresh();
    FILE_WATCH::MARK NewMark();
    void Load();
    void Know(const FILE_IDENTITY& read);
    void Take(REG_TREE read, const FILE_IDENTITY& of);
    DWORD Look(FOUND& found);
    bool Parse(FOUND& found);
    bool MayBeHalf(const FOUND& found) const;
    DWORD WaitForWriter();
    DWORD Wait(TIME pause);
    bool Overdue(TIME begin) const;
    bool ReadFile(FOUND& found);
    DWORD ChangeFile(const std::function<DWORD(REG_TREE&)>& edit);
    DWORD TryChange(const std::function<DWORD(REG_TREE&)>& edit);
    DWORD Replace(const std::string& bytes, const FOUND& old, FILE_IDENTITY& written) const;
    bool Unchanged(const FOUND& found) const;
    void SetProblem(std::string text);
    void Announce();

    const std::string path;

    std::mutex writing;  // one writer of this process at a time; taken before `lock`
    std::mutex lock;     // guards everything below
    std::shared_ptr<const REG_TREE> tree;
    FILE_IDENTITY identity, taken;  // of what was last read, good or bad, and of what the tree was read from
    FILE_IDENTITY seen;             // when it was last looked at, read or not
    TIME seenAt{};                  // when it became that
    TIME waitingSince{};            // since when another writer may not be done; 0: none is known
    TIME waitedAt{};                // of the last look that found so
    bool known = false;             // `identity` holds
    FILE_WATCH::MARK mark;          // of the watch, before the file was last found to be that
    bool recent = false;  // read so soon after it was written that the same times need not mean the same bytes
    DWORD loadError = ERROR_SUCCESS;
    std::string problem, takenProblem;

    std::mutex watching;  // guards the two below
    std::function<void()> announce;
    std::unique_ptr<FILE_WATCH> watch;
};

}  // namespace win32
