// Sends files from the device to the desktop as a cpio archive, which can be written to a serial port and whose end
// mark shows the reader that it is complete.

#ifndef DEVICELAB_CPIOARCHIVE_H
#define DEVICELAB_CPIOARCHIVE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

class CpioArchive {
public:
    // REQUIRES: `path` exists; a new file would be lost with the device. On failure IsSound() is false.
    explicit CpioArchive(const char* path) {
        int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd >= 0) m_file = fdopen(fd, "wb");
    }

    bool IsSound() const { return m_file != nullptr && std::ferror(m_file) == 0; }

    void Add(const std::string& name, const std::string& content) { AddEntry(name, S_IFREG | 0644, content); }

    // Writes the end mark and closes. Returns true when everything has been written.
    bool Finish() {
        AddEntry("TRAILER!!!", 0, "");
        bool sound = IsSound();
        return std::fclose(m_file) == 0 && sound;
    }

private:
    void AddEntry(const std::string& name, unsigned mode, const std::string& content) {
        // "newc": magic, then inode, mode, uid, gid, links, mtime, size, four device numbers, name size, checksum.
        int length = std::fprintf(m_file, "070701%08x%08x%08x%08x%08x%08x%08zx%08x%08x%08x%08x%08zx%08x%s%c", ++m_inode,
                                  mode, 0, 0, 1, 0, content.size(), 0, 0, 0, 0, name.size() + 1, 0, name.c_str(), '\0');
        Pad(static_cast<size_t>(length));
        std::fwrite(content.data(), 1, content.size(), m_file);
        Pad(content.size());
    }

    void Pad(size_t written) {
        for (; written % 4 != 0; ++written) std::fputc('\0', m_file);
    }

    FILE* m_file = nullptr;
    unsigned m_inode = 0;
};

#endif  // DEVICELAB_CPIOARCHIVE_H
