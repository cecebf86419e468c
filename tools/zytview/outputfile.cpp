#include "outputfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>

#include "text.h"

namespace {

std::atomic<const char*> g_unfinished{nullptr};  // path of the temporary file

void RemoveUnfinished() {
    const char* const path = g_unfinished.exchange(nullptr);
    if (path != nullptr) unlink(path);
}

}  // namespace

bool IsStandardOutput(const std::string& path) { return path == "-" || path == "/dev/stdout"; }

void RemoveUnfinishedAtSignals() {
    struct sigaction action {};
    action.sa_handler = [](int signal) {
        RemoveUnfinished();
        raise(signal);  // now with the default action
    };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
        struct sigaction old {};
        if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
        sigaction(signal, &action, nullptr);
    }
}

OutputFile::OutputFile(const std::string& path) : m_path(path) {
    std::error_code error;
    if (IsStandardOutput(path)) {
        m_stream = fdopen(dup(STDOUT_FILENO), "wb");
    } else if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
        m_stream = std::fopen(path.c_str(), "wb");
    } else {
        OpenBeside();
    }
    if (m_stream == nullptr) Fail(errno);
}

void OutputFile::OpenBeside() {
    const std::string directory = std::filesystem::path(m_path).parent_path();
    const std::string stem = (directory.empty() ? "" : directory + "/") + ".zytview-" + std::to_string(getpid()) + "-";
    int fd = -1;
    for (int i = 0; i == 0 || (fd < 0 && errno == EEXIST && i < 100); ++i) {
        g_unfinished = nullptr;
        m_temporary = stem + std::to_string(i);
        g_unfinished = m_temporary.c_str();  // before the file exists: a signal can come at once
        fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    }
    if (fd < 0) g_unfinished = nullptr;  // the file, if there is one, is not ours
    m_stream = fd < 0 ? nullptr : fdopen(fd, "wb");
}

OutputFile::~OutputFile() {
    if (m_stream != nullptr) std::fclose(m_stream);
    RemoveUnfinished();
}

void OutputFile::Write(const void* bytes, size_t size) {
    if (m_error == 0 && std::fwrite(bytes, 1, size, m_stream) != size) m_error = errno;
}

void OutputFile::Commit() {
    if (std::fclose(std::exchange(m_stream, nullptr)) != 0 && m_error == 0) m_error = errno;
    if (m_error == 0 && g_unfinished != nullptr) {
        if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) m_error = errno;
        if (m_error == 0) g_unfinished = nullptr;
    }
    if (m_error != 0) Fail(m_error);
}

void OutputFile::Fail(int error) const {
    RemoveUnfinished();
    throw WriteError("cannot write " + m_path + ": " + std::strerror(error));
}
