/// \file
/// Filesystem helpers for applications and the library: tests, creating, copying, moving
/// and removing files and directories, and a temporary directory that cleans up after
/// itself.
///
/// Nothing here throws: a failure returns false or an empty optional and writes an ERROR
/// line to the log module "tavi.fs". The functions keep no state and are thread safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::fs {

/// Tests a path: exists and is_file (a regular file) / is_directory follow symbolic links;
/// is_symlink tests the link itself. False also when the path cannot be examined.
///@{
TAVI_EXPORT bool exists(const std::string& path);
TAVI_EXPORT bool is_file(const std::string& path);
TAVI_EXPORT bool is_directory(const std::string& path);
TAVI_EXPORT bool is_symlink(const std::string& path);
///@}

/// Creates the directory and any missing parents; true also when it already exists.
TAVI_EXPORT bool mkdir(const std::string& path);
/// Renames a file or directory; across filesystems it copies and then removes the source.
TAVI_EXPORT bool move(const std::string& from, const std::string& to);
/// Copies a regular file, replacing an existing file at the destination.
TAVI_EXPORT bool copy_file(const std::string& from, const std::string& to);
/// Removes a file, link or whole directory tree; true when nothing is left at the path, so a
/// missing path is not a failure.
TAVI_EXPORT bool remove(const std::string& path);
/// Bytes in all regular files below a directory, links not followed.
TAVI_EXPORT std::optional<uint64_t> dir_size(const std::string& path);

/// The whole contents of a file; empty when it cannot be opened or read.
TAVI_EXPORT std::optional<std::string> read_file_into_string(const std::string& path);
/// Creates or replaces the file with exactly these bytes.
TAVI_EXPORT bool create_file_with_contents(const std::string& path, const std::string& contents);
/// Cuts an existing file to the given size (or extends it with zero bytes).
TAVI_EXPORT bool truncate(const std::string& path, uint64_t size = 0);

/// Creates link as a symbolic link pointing to target (which need not exist).
TAVI_EXPORT bool create_symlink(const std::string& target, const std::string& link);
/// The target a symbolic link points to; empty when link is no link.
TAVI_EXPORT std::optional<std::string> read_symlink(const std::string& link);

/// A fresh directory "tmpdir.XXXXXX" in the system's temporary directory, removed with all
/// its contents when the object is destroyed. path() is empty when it could not be created.
///
/// Not copyable; use one object from one thread at a time. The path stays valid until the
/// object is destroyed.
class TAVI_EXPORT TempDirectory {
public:
    /// Creates the directory; an ERROR line when it cannot.
    TempDirectory();
    /// Removes the directory and everything in it.
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    /// The directory's path; empty when it could not be created.
    const std::string& path() const { return m_path; }
    /// Whether the directory was created.
    bool valid() const { return !m_path.empty(); }

private:
    std::string m_path;
};

}  // namespace ecu::tavi::fs
