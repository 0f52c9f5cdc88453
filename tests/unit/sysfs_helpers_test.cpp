// The small sysfs readers and path builders of the host view.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "mirvak/host_view.h"
#include "sim_env.h"

namespace {

using testenv::CaptureErr;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using Owned = std::unique_ptr<char, FreeDeleter>;

// Files are written below the fixture's root; most tests name them through
// the redirected /sys/class/fc_host, as the walks do.
class SysfsHelpers : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        std::filesystem::create_directories(root() + "/sys/class/fc_host/host3");
    }
    // Writes text (exactly) as /sys/class/fc_host/host3/<name> and returns
    // that system path.
    std::string Put(const std::string& name, const std::string& text) {
        std::ofstream(root() + "/sys/class/fc_host/host3/" + name, std::ios::binary) << text;
        return "/sys/class/fc_host/host3/" + name;
    }
    // A heap buffer of exactly n pattern bytes, so that a write past it is
    // caught under ASan.
    static std::unique_ptr<char[]> Buffer(std::size_t n) {
        std::unique_ptr<char[]> b(new char[n]);
        Fill(b.get(), n);
        return b;
    }
    static int OpenDescriptors() {
        int n = 0;
        DIR* d = opendir("/proc/self/fd");
        while (readdir(d) != nullptr) ++n;
        closedir(d);
        return n;
    }
};

// ---- path_cat, str_cat ----

TEST_F(SysfsHelpers, PathCatJoinsWithOneSlash) {
    Owned p(path_cat("/sys/class/fc_host", "host3"));
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p.get(), "/sys/class/fc_host/host3");
}

TEST_F(SysfsHelpers, PathCatDoesNotNormaliseATrailingSlash) {
    Owned p(path_cat("/sys/class/fc_host/", "host3"));
    EXPECT_STREQ(p.get(), "/sys/class/fc_host//host3");
}

TEST_F(SysfsHelpers, PathCatOfEmptyStringsIsASlash) {
    Owned p(path_cat("", ""));
    EXPECT_STREQ(p.get(), "/");
}

TEST_F(SysfsHelpers, PathCatAllocatesExactlyWhatItWrites) {
    // Under ASan a one-byte-short allocation fails here.
    const std::string dir(300, 'd'), name(200, 'n');
    Owned p(path_cat(dir.c_str(), name.c_str()));
    EXPECT_EQ(std::string(p.get()), dir + "/" + name);
}

TEST_F(SysfsHelpers, PathCatOfANullArgumentIsNull) {
    EXPECT_EQ(path_cat(nullptr, "x"), nullptr);
    EXPECT_EQ(path_cat("x", nullptr), nullptr);
}

TEST_F(SysfsHelpers, StrCatNeverInsertsASeparator) {
    Owned p(str_cat("/sys/class/fc_host/host2/device/rport-2:0-0/fc_remote_ports:", "rport-2:0-0"));
    EXPECT_STREQ(p.get(), "/sys/class/fc_host/host2/device/rport-2:0-0/fc_remote_ports:rport-2:0-0");
    Owned q(str_cat("dir", "name"));
    EXPECT_STREQ(q.get(), "dirname");
    Owned e(str_cat("", ""));
    EXPECT_STREQ(e.get(), "");
    EXPECT_EQ(str_cat(nullptr, "x"), nullptr);
    EXPECT_EQ(str_cat("x", nullptr), nullptr);
}

// ---- read_string ----

TEST_F(SysfsHelpers, ReadStringTakesTheBareWordOfABlankPaddedLine) {
    const std::string path = Put("vendor", "  ACME    \n");
    auto out = Buffer(256);
    int rc = -7;
    EXPECT_EQ(CaptureOut([&] { rc = read_string(path.c_str(), out.get()); }), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(std::memcmp(out.get(), "ACME", 5), 0);  // the word and its NUL
    EXPECT_TRUE(Untouched(out.get() + 5, 251));
}

TEST_F(SysfsHelpers, ReadStringKeepsOnlyTheFirstOfTwoWords) {
    const std::string path = Put("vendor", "TWO WORD\n");
    auto out = Buffer(256);
    EXPECT_EQ(read_string(path.c_str(), out.get()), 0);
    EXPECT_STREQ(out.get(), "TWO");
    EXPECT_TRUE(Untouched(out.get() + 4, 252));
}

TEST_F(SysfsHelpers, ReadStringStopsAtATabToo) {
    const std::string path = Put("vendor", "AB\tCD\n");
    auto out = Buffer(256);
    EXPECT_EQ(read_string(path.c_str(), out.get()), 0);
    EXPECT_STREQ(out.get(), "AB");
}

TEST_F(SysfsHelpers, ReadStringReadsOnlyTheFirstLine) {
    const std::string path = Put("vendor", "FIRST\nSECOND\n");
    auto out = Buffer(256);
    EXPECT_EQ(read_string(path.c_str(), out.get()), 0);
    EXPECT_STREQ(out.get(), "FIRST");
}

TEST_F(SysfsHelpers, ReadStringOfAFileWithoutNewline) {
    const std::string path = Put("vendor", "NONL");
    auto out = Buffer(256);
    EXPECT_EQ(read_string(path.c_str(), out.get()), 0);
    EXPECT_STREQ(out.get(), "NONL");
    EXPECT_TRUE(Untouched(out.get() + 5, 251));
}

TEST_F(SysfsHelpers, ReadStringOfAMissingFileFailsSilently) {
    auto out = Buffer(256);
    int rc = 0;
    std::string err;
    const std::string printed = CaptureOut([&] {
        err = CaptureErr([&] { rc = read_string("/sys/class/fc_host/host3/none", out.get()); });
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(Untouched(out.get(), 256));
}

TEST_F(SysfsHelpers, ReadStringOfAFileWithoutAWordLeavesOutAlone) {
    for (const char* text : {"", "\n", "     \n", "   "}) {
        const std::string path = Put("vendor", text);
        auto out = Buffer(256);
        EXPECT_EQ(read_string(path.c_str(), out.get()), 0) << '"' << text << '"';
        EXPECT_TRUE(Untouched(out.get(), 256)) << '"' << text << '"';
    }
}

TEST_F(SysfsHelpers, ReadStringOfADirectoryLeavesOutAlone) {
    auto out = Buffer(256);
    EXPECT_EQ(read_string("/sys/class/fc_host/host3", out.get()), 0);
    EXPECT_TRUE(Untouched(out.get(), 256));
}

TEST_F(SysfsHelpers, ReadStringCutsAnOverlongWordToTheLineBuffer) {
    // A line is read into 256 bytes: 255 characters and the NUL fill out
    // (which holds exactly 256 bytes) and nothing is written past it.
    const std::string path = Put("vendor", std::string(300, 'W') + "\n");
    auto out = Buffer(256);
    EXPECT_EQ(read_string(path.c_str(), out.get()), 0);
    EXPECT_EQ(std::string(out.get()), std::string(255, 'W'));
}

// ---- read_val ----

TEST_F(SysfsHelpers, ReadValParsesAWwnWithLeadingZeroX) {
    const std::string path = Put("port_name", "0x2100001b9ea10000\n");
    unsigned long v = 1;
    EXPECT_EQ(CaptureOut([&] { v = read_val(path.c_str()); }), "");
    EXPECT_EQ(v, 0x2100001b9ea10000UL);
}

TEST_F(SysfsHelpers, ReadValAcceptsUpperCaseAndNoPrefix) {
    EXPECT_EQ(read_val(Put("a", "0x2000000743001A2B\n").c_str()), 0x2000000743001a2bUL);
    EXPECT_EQ(read_val(Put("b", "2100001b9ea10000").c_str()), 0x2100001b9ea10000UL);
}

TEST_F(SysfsHelpers, ReadValOfAMissingFilePrintsAndYieldsZero) {
    unsigned long v = 1;
    std::string err;
    const std::string out = CaptureOut([&] {
        err = CaptureErr([&] { v = read_val("/sys/class/fc_host/host3/port_name"); });
    });
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(out, "read_val:: File /sys/class/fc_host/host3/port_name open failed\n");
    EXPECT_EQ(err, "");
}

TEST_F(SysfsHelpers, ReadValOfAnEmptyFileIsZeroWithoutAMessage) {
    const std::string path = Put("port_name", "");
    unsigned long v = 1;
    EXPECT_EQ(CaptureOut([&] { v = read_val(path.c_str()); }), "");
    EXPECT_EQ(v, 0u);
}

TEST_F(SysfsHelpers, ReadValOfALineWithoutATokenIsZero) {
    EXPECT_EQ(read_val(Put("a", "\n").c_str()), 0u);
    EXPECT_EQ(read_val(Put("b", "      \n").c_str()), 0u);
}

TEST_F(SysfsHelpers, ReadValTakesTheFirstTokenAfterBlanks) {
    EXPECT_EQ(read_val(Put("a", "   0x51 0x52\n").c_str()), 0x51u);
    EXPECT_EQ(read_val(Put("b", "0x51\n0x52\n").c_str()), 0x51u);
}

TEST_F(SysfsHelpers, ReadValOfSomethingElseIsWhatTheConversionMakesOfIt) {
    EXPECT_EQ(read_val(Put("a", "zz\n").c_str()), 0u);
    EXPECT_EQ(read_val(Put("b", "0x\n").c_str()), 0u);
    EXPECT_EQ(read_val(Put("c", "12zz\n").c_str()), 0x12u);
    EXPECT_EQ(read_val(Put("d", "-1\n").c_str()), ~0UL);
}

TEST_F(SysfsHelpers, ReadValSaturatesAnOverlongNumber) {
    EXPECT_EQ(read_val(Put("a", "0x2100001b9ea10000ff\n").c_str()), ~0UL);
    // Leading zeros are no overflow.
    EXPECT_EQ(read_val(Put("b", "0x0000000000000051ffff").c_str()), 0x51ffffUL);
}

TEST_F(SysfsHelpers, ReadValReadsOneLineOfAtMost127Characters) {
    // 124 blanks and "0x5" fit into the line; with 125 blanks only "0x" does.
    EXPECT_EQ(read_val(Put("a", std::string(124, ' ') + "0x51\n").c_str()), 0x5u);
    EXPECT_EQ(read_val(Put("b", std::string(125, ' ') + "0x51\n").c_str()), 0u);
}

TEST_F(SysfsHelpers, ReadValClosesTheFileAlsoWhenItIsEmpty) {
    const std::string empty = Put("e", "");
    const std::string full = Put("f", "0x51\n");
    const int before = OpenDescriptors();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(read_val(empty.c_str()), 0u);
        EXPECT_EQ(read_val(full.c_str()), 0x51u);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- read_proc ----

TEST_F(SysfsHelpers, ReadProcParsesADecimalSize) {
    const std::string path = Put("size", "2097152\n");
    unsigned long v = 1;
    int rc = -7;
    EXPECT_EQ(CaptureOut([&] { rc = read_proc(path.c_str(), &v, 10); }), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 2097152u);
}

TEST_F(SysfsHelpers, ReadProcOfAMissingFilePrintsAndLeavesOutAlone) {
    unsigned long v = 0xA5A5A5A5A5A5A5A5UL;
    int rc = 0;
    std::string err;
    const std::string out = CaptureOut([&] {
        err = CaptureErr([&] { rc = read_proc("/sys/class/fc_host/host3/size", &v, 10); });
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(v, 0xA5A5A5A5A5A5A5A5UL);
    EXPECT_EQ(out, "read_proc:: File /sys/class/fc_host/host3/size open failed\n");
    EXPECT_EQ(err, "");
}

TEST_F(SysfsHelpers, ReadProcTreatsDescriptorZeroAsAFailure) {
    // With standard input closed the open hands out descriptor 0, which is
    // reported like a failed open.
    const std::string path = Put("size", "42\n");
    unsigned long v = 7;
    int rc = 0;
    bool zero_closed_after = false;
    const std::string out = CaptureOut([&] {
        const int saved = dup(0);
        ASSERT_GE(saved, 0);
        close(0);
        rc = read_proc(path.c_str(), &v, 10);
        zero_closed_after = fcntl(0, F_GETFD) == -1;
        dup2(saved, 0);
        close(saved);
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(out, "read_proc:: File /sys/class/fc_host/host3/size open failed\n");
    EXPECT_TRUE(zero_closed_after);  // the descriptor is not kept
}

TEST_F(SysfsHelpers, ReadProcInBase16ReadsOnlySixteenBytesOfAWwn) {
    // "0x2100001b9ea10000\n" is 19 bytes; the conversion sees "0x2100001b9ea100".
    const std::string path = Put("port_name", "0x2100001b9ea10000\n");
    unsigned long v = 0;
    EXPECT_EQ(read_proc(path.c_str(), &v, 16), 0);
    EXPECT_EQ(v, 0x2100001b9ea100UL);
}

TEST_F(SysfsHelpers, ReadProcCutsALongNumberToSixteenDigits) {
    unsigned long v = 0;
    EXPECT_EQ(read_proc(Put("size", "18446744073709551615\n").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 1844674407370955UL);
}

TEST_F(SysfsHelpers, ReadProcOfAFileWithoutNewlineStopsAtItsEnd) {
    unsigned long v = 0;
    EXPECT_EQ(read_proc(Put("a", "123").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 123u);
    EXPECT_EQ(read_proc(Put("b", "1234567890123456").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 1234567890123456UL);
    EXPECT_EQ(read_proc(Put("c", "9").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 9u);
}

TEST_F(SysfsHelpers, ReadProcOfAnEmptyFileStoresZero) {
    unsigned long v = 0xA5A5A5A5A5A5A5A5UL;
    int rc = -7;
    EXPECT_EQ(CaptureOut([&] { rc = read_proc(Put("size", "").c_str(), &v, 10); }), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 0u);
}

TEST_F(SysfsHelpers, ReadProcOfADirectoryStoresZero) {
    unsigned long v = 5;
    EXPECT_EQ(read_proc("/sys/class/fc_host/host3", &v, 10), 0);
    EXPECT_EQ(v, 0u);
}

TEST_F(SysfsHelpers, ReadProcStoresWhatStrtolMakesOfOtherText) {
    unsigned long v = 5;
    EXPECT_EQ(read_proc(Put("a", "abc\n").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(read_proc(Put("b", "12abc\n").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 12u);
    EXPECT_EQ(read_proc(Put("c", "  -5\n").c_str(), &v, 10), 0);
    EXPECT_EQ(v, static_cast<unsigned long>(-5L));
    EXPECT_EQ(read_proc(Put("d", "ff\n").c_str(), &v, 16), 0);
    EXPECT_EQ(v, 0xffu);
    EXPECT_EQ(read_proc(Put("e", "ff\n").c_str(), &v, 10), 0);
    EXPECT_EQ(v, 0u);
}

}  // namespace
