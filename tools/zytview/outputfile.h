#ifndef ZYTVIEW_OUTPUTFILE_H
#define ZYTVIEW_OUTPUTFILE_H

#include <cstdio>
#include <string>

/// Whether the path means the standard output.
bool IsStandardOutput(const std::string& path);

/// A file that comes to its name only when it is whole: until then it has a name of its own beside it, which no other
/// file has, and which goes with the object or with a signal that ends the process. A pipe, a device or the standard
/// output has no content to lose and is written in place. One at a time.
class OutputFile {
public:
    /// Throws WriteError when the file cannot be made.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    FILE* Stream() const { return m_stream; }

    /// Gives the file its name. Throws WriteError, and what had the name before stays.
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
