// The bytes of a file or of standard input, in order.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/failure.h"
#include "win32/sync/descriptor.h"

namespace tools {

// The bytes of the source: a file, or standard input, copied to a file without a name when it must be read out of
// order.
class BYTE_SOURCE {
public:
    explicit BYTE_SOURCE(const std::string& path) : name(path == "-" ? "standard input" : path) {
        file = win32::DESCRIPTOR(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat about;
        if (!file || fstat(file.Get(), &about) != 0) Fail();
        if (S_ISDIR(about.st_mode)) throw COMMAND_ERROR("cannot read " + name + ": it is a folder");
        head.resize(ChunkBytes);
        head.resize(Fill(head.data(), head.size()));
    }
    const std::string& Name() const { return name; }
    std::string_view Head() const { return {head.data(), head.size()}; }

    // The next bytes in order, the head first; empty at the end.
    std::string_view Next() {
        if (!headGiven) {
            headGiven = true;
            return Head();
        }
        head.resize(ChunkBytes);
        head.resize(Fill(head.data(), head.size()));
        return Head();
    }

    // A path under which the bytes can be read in any order while this object lives.
    std::string SeekablePath(const std::string& path) {
        if (path != "-") return path;
        std::FILE* copy = std::tmpfile();  // no name, gone with the process
        if (copy == nullptr) Fail();
        for (std::string_view bytes = Next(); !bytes.empty(); bytes = Next())
            if (std::fwrite(bytes.data(), 1, bytes.size(), copy) != bytes.size()) Fail();
        if (std::fflush(copy) != 0) Fail();
        return "/proc/self/fd/" + std::to_string(fileno(copy));
    }

private:
    static constexpr size_t ChunkBytes = 64 * 1024;

    size_t Fill(char* bytes, size_t count) {
        size_t done = 0;
        while (done < count) {
            const ssize_t got = read(file.Get(), bytes + done, count - done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) Fail();
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        return done;
    }
    [[noreturn]] void Fail() const { throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno)); }

    const std::string name;
    win32::DESCRIPTOR file;
    std::vector<char> head;
    bool headGiven = false;
};

}  // namespace tools
