#ifndef ZYTVIEW_OUTPUTFILE_H
#define ZYTVIEW_OUTPUTFILE_H

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

    FILE* Stream() const { return m_stream; }

    /// Renames the file to its final name. On failure throws WriteError; an old file of that name stays.
    void Commit();

    /// Throws WriteError with the reason.
    [[noreturn]] void Fail(const std::string& reason) const;

private:
    void OpenBeside();

    const std::string m_path;
    std::string m_temporary;  // empty when written in place
    FILE* m_stream = nullptr;
};

#endif  // ZYTVIEW_OUTPUTFILE_H
