#include "outputfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "errors.h"

namespace {

// Path that a signal handler must remove; empty when there is none.
char g_unfinished[PATH_MAX];

void RemoveUnfinished(int signal) {
    if (g_unfinished[0] != 0) unlink(g_unfinished);
    if (signal == SIGBUS) {
        const char reason[] = "zytview: a dump became shorter while it was read\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, reason, sizeof(reason) - 1);
        _exit(2);
    }
    raise(signal);  // now with the default action
}

void RemoveAtSignals() {
    struct sigaction action {};
    action.sa_handler = RemoveUnfinished;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGBUS}) sigaction(signal, &action, nullptr);
}

}  // namespace

bool IsStandardOutput(const std::string& path) { return path == "-" || path == "/dev/stdout"; }

OutputFile::OutputFile(const std::string& path) : m_path(path) {
    std::error_code error;
    RemoveAtSignals();
    if (IsStandardOutput(path)) {
        m_stream = fdopen(dup(STDOUT_FILENO), "wb");
    } else if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
        m_stream = std::fopen(path.c_str(), "wb");
    } else {
        OpenBeside();
    }
    if (m_stream == nullptr) Fail(std::strerror(errno));
}

void OutputFile::OpenBeside() {
    const std::string directory = std::filesystem::path(m_path).parent_path();
    const std::string stem = (directory.empty() ? "" : directory + "/") + ".zytview-" + std::to_string(getpid()) + "-";
    for (int i = 0; i < 100; ++i) {
        m_temporary = stem + std::to_string(i);
        const int fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd >= 0) m_stream = fdopen(fd, "wb");
        break;
    }
    if (m_stream == nullptr) {
        m_temporary.clear();
    } else if (m_temporary.size() < sizeof(g_unfinished)) {
        std::memcpy(g_unfinished, m_temporary.c_str(), m_temporary.size() + 1);
    }
}

OutputFile::~OutputFile() {
    if (m_stream != nullptr) std::fclose(m_stream);
    if (!m_temporary.empty()) std::remove(m_temporary.c_str());
    g_unfinished[0] = 0;
}

void OutputFile::Commit() {
    FILE* stream = m_stream;
    m_stream = nullptr;
    if (std::fclose(stream) != 0) Fail(std::strerror(errno));
    if (m_temporary.empty()) return;
    if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) Fail(std::strerror(errno));
    m_temporary.clear();
}

void OutputFile::Fail(const std::string& reason) const { throw WriteError("cannot write " + m_path + ": " + reason); }
