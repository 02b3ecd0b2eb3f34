#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// A result file written under a temporary name beside its destination and renamed by commit(), so a
// failed run never leaves a partial file where the user expects a result.
class PendingFile
{
public:
    // Throws ToolError "cannot write output PATH: ..." when the directory takes no new file.
    explicit PendingFile(std::string const& path);
    // Removes the temporary file unless commit() succeeded.
    ~PendingFile();

    PendingFile(PendingFile const&) = delete;
    PendingFile& operator=(PendingFile const&) = delete;

    // The open temporary file; whoever takes it closes it before commit().
    int takeDescriptor();
    void commit();
    // Throws ToolError "cannot write output PATH: what".
    [[noreturn]] void fail(std::string const& what) const;

private:
    std::string m_path;
    std::string m_temporaryPath;
    int m_fd = -1;
    bool m_committed = false;
};

} // namespace Host
} // namespace Zelmar
