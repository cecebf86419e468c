#ifndef ZYTVIEW_OUTPUTFILE_H
#define ZYTVIEW_OUTPUTFILE_H

#include <atomic>
#include <cstdio>
#include <string>

/// Returns true when the path means the standard output.
bool IsStandardOutput(const std::string& path);

/// An output file that appears under its name only when it is complete. Until then it has a unique temporary name in
/// the same directory, and is removed by the destructor or by a signal that ends the process. Pipes, devices and the
/// standard output have no old content to keep and are written in place. REQUIRES: only one exists at a time.
class OutputFile {
public:
    /// Throws WriteError when the file cannot be created.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Appends bytes. Does nothing after a failure, which Commit reports. Not thread-safe.
    void Write(const void* bytes, size_t size);

    /// Returns true after a failure. Thread-safe.
    bool HasFailed() const { return m_error != 0; }

    /// Renames the file to its final name. Throws WriteError after a failure; an old file of that name stays.
    void Commit();

private:
    void OpenBeside();
    [[noreturn]] void Fail(int error) const;

    const std::string m_path;
    std::string m_temporary;  // empty when written in place
    FILE* m_stream = nullptr;
    std::atomic<int> m_error{0};
};

/// Makes the signals that end the process remove an unfinished output file first. A signal that is ignored stays so.
void RemoveUnfinishedAtSignals();

#endif  // ZYTVIEW_OUTPUTFILE_H
