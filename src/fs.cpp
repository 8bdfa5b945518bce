#include "ecu/tavi/fs/fs.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
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
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        log_failure("open", path, std::error_code(errno, std::generic_category()));
        return std::nullopt;
    }
    std::string contents((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        log_failure("read", path, std::error_code(EIO, std::generic_category()));
        return std::nullopt;
    }
    return contents;
}

bool create_file_with_contents(const std::string& path, const std::string& contents) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        log_failure("create", path, std::error_code(errno, std::generic_category()));
        return false;
    }
    file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    file.close();
    if (!file) {
        log_failure("write", path, std::error_code(EIO, std::generic_category()));
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
        log_failure("create temporary directory", name,
                    std::error_code(errno, std::generic_category()));
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
