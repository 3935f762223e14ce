// Whole-file writes: from memory or copied by the kernel from a descriptor holding the bytes,
// falling back to memory where the kernel cannot copy, and nothing left behind on failure.
#include "atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace Vex {
namespace {

class AtomicFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/atomic-file-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override
    {
        for (const std::string& name : Names()) {
            unlink((dir_ + "/" + name).c_str());
        }
        rmdir(dir_.c_str());
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        if (DIR* d = opendir(dir_.c_str())) {
            while (dirent* e = readdir(d)) {
                std::string name = e->d_name;
                if (name != "." && name != "..") {
                    names.push_back(name);
                }
            }
            closedir(d);
        }
        return names;
    }
    std::string Read(const std::string& name) const
    {
        std::ifstream in(dir_ + "/" + name, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }
    std::string dir_;
};

// A memfd holding the first `held` bytes of data.
int MemfdWith(const std::string& data, size_t held)
{
    int fd = memfd_create("atomic-file-test", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, data.data(), held), static_cast<ssize_t>(held));
    return fd;
}

TEST_F(AtomicFileTest, WritesTheBytesFromMemoryOrFromTheirDescriptor)
{
    std::string data(3 * 1024 * 1024 + 7, '\0');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 31 + 5);
    }
    int pipeFds[2] = {-1, -1};
    ASSERT_EQ(pipe(pipeFds), 0);
    struct Case {
        const char* name;
        int source;
    };
    const Case cases[] = {
        {"memory", -1},
        {"a memfd, copied by the kernel", MemfdWith(data, data.size())},
        {"a pipe, which the kernel cannot copy from: memory", pipeFds[0]},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string name = "photo-" + std::to_string(++n) + ".jpg";
        std::string error;
        ASSERT_TRUE(WriteFileAtomically(dir_ + "/" + name, data.data(), data.size(), &error, c.source)) << error;
        EXPECT_TRUE(Read(name) == data);
    }
    EXPECT_EQ(Names().size(), 3u) << "a temporary was left behind";
    close(cases[1].source);
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST_F(AtomicFileTest, ASourceShorterThanSaidFailsAndLeavesNoFile)
{
    const std::string data(100000, 'x');
    int source = MemfdWith(data, data.size() / 2);
    std::string error;
    EXPECT_FALSE(WriteFileAtomically(dir_ + "/short.jpg", data.data(), data.size(), &error, source));
    EXPECT_NE(error.find("short.jpg"), std::string::npos) << error;
    EXPECT_TRUE(Names().empty()) << "neither the file nor its temporary may stay";
    close(source);
}

}  // namespace
}  // namespace Vex
