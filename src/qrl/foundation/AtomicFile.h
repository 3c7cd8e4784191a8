// Whole-file replacement that never leaves a half-written file under the
// final name: the bytes go to a temporary file in the target's folder
// (".<name>.XXXXXX", created exclusively), which is flushed to disk, given
// the target's mode and renamed over the target; then the folder is flushed.
// On any failure the temporary file is removed and the old file, if any,
// stays as it was.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace qrl {

struct AtomicFileOptions {
    // The mode of a new file; an existing target keeps its own mode.
    mode_t newFileMode = 0644;
    // The target folder's descriptor when the caller already holds it open
    // (not owned); -1 opens the folder for its flush after the rename.
    int folderFd = -1;
};

// The streaming form, for files too large to hold in memory. Not thread-safe.
class AtomicFileWriter {
public:
    // Creates the temporary file; on failure ok() is false and error() says why.
    explicit AtomicFileWriter(std::string path, AtomicFileOptions options = {});
    ~AtomicFileWriter();  // abort() unless committed
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // True while the temporary file is open and nothing has failed.
    bool ok() const { return fd_ >= 0; }
    // What failed, with the path and the system's reason; empty when nothing has.
    const std::string& error() const { return error_; }
    const std::string& path() const { return path_; }
    // Empty until created, and again once committed or removed.
    const std::string& temporaryPath() const { return temporary_; }
    bool committed() const { return committed_; }

    // Appends all of `bytes` (short writes and interruptions are resumed).
    // False on failure, which also removes the temporary file; false at once
    // when the writer is no longer open.
    bool write(const void* bytes, size_t size);
    bool write(std::string_view bytes) { return write(bytes.data(), bytes.size()); }

    // Flushes, sets the mode, renames over the target and flushes the folder.
    // False on failure; a failure before the rename removes the temporary file
    // and leaves the target as it was. A failure of the folder's flush comes
    // after the rename: the new file is in place but may not survive a crash.
    bool commit();
    // Removes the temporary file; the target is untouched. Safe to call twice.
    void abort();

private:
    bool fail(const char* what, const std::string& subject, int error);

    std::string path_;
    std::string temporary_;
    AtomicFileOptions options_;
    int fd_ = -1;
    bool committed_ = false;
    std::string error_;
};

// The one-shot form: replaces `path` with `bytes`. On failure answers false
// and writes the reason to *problem when it is not null.
bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* problem = nullptr,
                         AtomicFileOptions options = {});

}  // namespace qrl
