#include "ecu/tavi/partition.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace ecu::tavi {
namespace {

// A host name file of the test's own, removed at the end.
class HostnameFile {
public:
    HostnameFile() {
        char tmpl[] = "/tmp/tavi-hostname.XXXXXX";
        int fd = ::mkstemp(tmpl);
        ::close(fd);
        m_path = tmpl;
        remove();
    }
    ~HostnameFile() { remove(); }

    void write(const std::string& contents) { std::ofstream(m_path) << contents; }
    void remove() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

Partition::Type identify(const std::string& contents) {
    HostnameFile file;
    file.write(contents);
    return Partition(file.path()).identify_partition();
}

TEST(Partition, FirstLineOfHostNameDecides) {
    EXPECT_EQ(Partition::TELE, identify("tele\n"));
    EXPECT_EQ(Partition::TPA, identify("ecu-tpa-01\n"));
    // "tele" is looked for first, so it wins over "tpa" wherever the two appear.
    EXPECT_EQ(Partition::TELE, identify("tpa-tele"));
    EXPECT_EQ(Partition::UNKNOWN, identify("gateway\n"));
    EXPECT_EQ(Partition::UNKNOWN, identify("TELE\n"));
    EXPECT_EQ(Partition::UNKNOWN, identify("gateway\ntele\n"));
    EXPECT_EQ(Partition::UNKNOWN, identify(""));
}

TEST(Partition, KnownPartitionIsCached) {
    HostnameFile file;
    file.write("unit-tpa\n");
    Partition partition(file.path());
    EXPECT_EQ(Partition::TPA, partition.identify_partition());

    file.write("unit-tele\n");
    EXPECT_EQ(Partition::TPA, partition.identify_partition());
    file.remove();
    EXPECT_EQ(Partition::TPA, partition.identify_partition());
    // A new instance reads the file again.
    EXPECT_EQ(Partition::UNKNOWN, Partition(file.path()).identify_partition());
}

TEST(Partition, UnknownIsReadAgainOnEveryCall) {
    HostnameFile file;
    Partition partition(file.path());
    EXPECT_EQ(Partition::UNKNOWN, partition.identify_partition());
    EXPECT_EQ(Partition::UNKNOWN, partition.identify_partition());

    file.write("gateway\n");
    EXPECT_EQ(Partition::UNKNOWN, partition.identify_partition());

    file.write("unit-tele\n");
    EXPECT_EQ(Partition::TELE, partition.identify_partition());
}

}  // namespace
}  // namespace ecu::tavi
