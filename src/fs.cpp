#include "ecu/tavi/fs/fs.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "ecu/tavi/logging/logging.h"

namespace ecu::tavi::fs {
namespace {

using namespace ecu::tavi::logging;
namespace stdfs = std::filesystem;

const auto s_log = logging::module("tavi.fs");

const char* const kTempTemplate = "/tmpdir.XXXXXX";

void log_failure(const std::string& what, const std::string& path, const std::error_code& ec) {
    ERROR << s_log << "Unable to " << what << " " << path << ": " << ec.message();
    ERROR.do_flush();
}

std::error_code last_error() {
    return std::error_code(errno, std::generic_category());
}

// A missing path is an answer, not a failure: only other errors are logged.
stdfs::file_type type_of(const std::string& path, bool follow_links) {
    std::error_code ec;
    const auto status = follow_links ? stdfs::status(path, ec) : stdfs::symlink_status(path, ec);
    if (ec && status.type() != stdfs::file_type::not_found) {
        log_failure("examine", path, ec);
        return stdfs::file_type::none;
    }
    return status.type();
}

}  // namespace

bool exists(const std::string& path) {
    const auto type = type_of(path, true);
    return type != stdfs::file_type::none && type != stdfs::file_type::not_found;
}

bool is_file(const std::string& path) {
    return type_of(path, true) == stdfs::file_type::regular;
}

bool is_directory(const std::string& path) {
    return type_of(path, true) == stdfs::file_type::directory;
}

bool is_symlink(const std::string& path) {
    return type_of(path, false) == stdfs::file_type::symlink;
}

bool mkdir(const std::string& path) {
    std::error_code ec;
    stdfs::create_directories(path, ec);
    if (ec) {
        log_failure("create directory", path, ec);
        return false;
    }
    return true;
}

bool move(const std::string& from, const std::string& to) {
    std::error_code ec;
    stdfs::rename(from, to, ec);
    if (ec == std::errc::cross_device_link) {
        // rename cannot leave its filesystem (/tmp is often a RAM disk of its own).
        ec.clear();
        stdfs::copy(from, to, stdfs::copy_options::recursive | stdfs::copy_options::copy_symlinks,
                    ec);
        if (!ec) {
            stdfs::remove_all(from, ec);
        }
    }
    if (ec) {
        log_failure("move", from + " to " + to, ec);
        return false;
    }
    return true;
}

bool copy_file(const std::string& from, const std::string& to) {
    std::error_code ec;
    stdfs::copy_file(from, to, stdfs::copy_options::overwrite_existing, ec);
    if (ec) {
        log_failure("copy", from + " to " + to, ec);
        return false;
    }
    return true;
}

bool remove(const std::string& path) {
    std::error_code ec;
    stdfs::remove_all(path, ec);
    if (ec) {
        log_failure("remove", path, ec);
        return false;
    }
    return true;
}

std::optional<uint64_t> dir_size(const std::string& path) {
    std::error_code ec;
    uint64_t total = 0;
    for (stdfs::recursive_directory_iterator it(path, ec), end; !ec && it != end;
         it.increment(ec)) {
        // Links are not followed, so nothing is counted twice.
        const bool counted = !it->is_symlink(ec) && !ec && it->is_regular_file(ec);
        if (!ec && counted) {
            total += it->file_size(ec);
        }
        if (ec) {
            break;
        }
    }
    if (ec) {
        log_failure("measure", path, ec);
        return std::nullopt;
    }
    return total;
}

std::optional<std::string> read_file_into_string(const std::string& path) {
    // Plain descriptors rather than streams: a file stream throws on a read error (reading a
    // directory, for one), and the error code is what the log line needs.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        log_failure("open", path, last_error());
        return std::nullopt;
    }
    std::string contents;
    char buffer[16384];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            contents.append(buffer, static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            log_failure("read", path, last_error());
            close(fd);
            return std::nullopt;
        }
    }
    close(fd);
    return contents;
}

bool create_file_with_contents(const std::string& path, const std::string& contents) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        log_failure("create", path, last_error());
        return false;
    }
    size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = write(fd, contents.data() + written, contents.size() - written);
        if (n >= 0) {
            written += static_cast<size_t>(n);
        } else if (errno != EINTR) {
            log_failure("write", path, last_error());
            close(fd);
            return false;
        }
    }
    if (close(fd) != 0) {
        log_failure("write", path, last_error());
        return false;
    }
    return true;
}

bool truncate(const std::string& path, uint64_t size) {
    std::error_code ec;
    stdfs::resize_file(path, size, ec);
    if (ec) {
        log_failure("truncate", path, ec);
        return false;
    }
    return true;
}

bool create_symlink(const std::string& target, const std::string& link) {
    std::error_code ec;
    stdfs::create_symlink(target, link, ec);
    if (ec) {
        log_failure("create symlink", link + " to " + target, ec);
        return false;
    }
    return true;
}

std::optional<std::string> read_symlink(const std::string& link) {
    std::error_code ec;
    auto target = stdfs::read_symlink(link, ec);
    if (ec) {
        log_failure("read symlink", link, ec);
        return std::nullopt;
    }
    return target.string();
}

TempDirectory::TempDirectory() {
    std::error_code ec;
    const auto base = stdfs::temp_directory_path(ec);
    if (ec) {
        ERROR << s_log << "Unable to find the temporary directory: " << ec.message();
        ERROR.do_flush();
        return;
    }
    std::string name = base.string() + kTempTemplate;
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        log_failure("create temporary directory", name, last_error());
        return;
    }
    m_path = buffer.data();
}

TempDirectory::~TempDirectory() {
    if (valid()) {
        remove(m_path);
    }
}

}  // namespace ecu::tavi::fs
