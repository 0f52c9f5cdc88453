// mirvak-hba-register as administrators and the package's maintainer
// scripts run it, against files of the test's own: the exact bytes it
// writes, what it leaves alone, its messages and its exit status.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <fstream>
#include <algorithm>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "hba_conf.h"
#include "replace_file.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

const std::string kPlugin = "/usr/lib/x86_64-linux-gnu/libmirvakhbaapi.so";
const std::string kLine = "com.mirvak.fcoe\t" + kPlugin + "\n";
// The front library's configuration with its comments, a setting and other
// vendors' plug-ins.
const std::string kHostConf =
    "# \n"
    "# This file contains names and references to HBA libraries\n"
    "#\n"
    "# <library name>  <library pathname>\n"
    "\n"
    "   # an indented comment\n"
    "com.other.vendor  /usr/lib/libother.so\n"
    "\t\n"
    "debuglevel 1\n"
    "org.third\t/opt/third/lib/libthird.so   \n"
    "\n";
constexpr uid_t kNobody = 65534;

struct Result {
    int status = -1;
    std::string out, err;
};

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void spit(const fs::path& p, const std::string& bytes) { std::ofstream(p, std::ios::binary) << bytes; }

std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class Register : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "mirvak-register-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        fs::permissions(dir_, fs::perms(0755));
        conf_ = dir_ / "etc" / "hba.conf";
        fs::create_directories(conf_.parent_path());
        fs::permissions(conf_.parent_path(), fs::perms(0755));
    }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(conf_.parent_path(), fs::perms(0755), ec);
        fs::remove_all(dir_, ec);
    }
    // mirvak-hba-register ARGS (as another user when prefix says so).
    Result Run(const std::vector<std::string>& args, const std::string& prefix = "") {
        std::string command = prefix + MIRVAK_REGISTER_PROGRAM;
        for (const std::string& a : args) command += " " + quote(a);
        command += " >" + quote((dir_ / "out").string()) + " 2>" + quote((dir_ / "err").string());
        Result r;
        const int raw = std::system(command.c_str());
        r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        r.out = slurp(dir_ / "out");
        r.err = slurp(dir_ / "err");
        return r;
    }
    Result Do(const std::string& action, const std::string& prefix = "") {
        std::vector<std::string> args{action, "--conf", conf_.string()};
        if (action != "remove") args.insert(args.end(), {"--plugin", kPlugin});
        return Run(args, prefix);
    }
    // Nothing but the file itself in its folder: no temporary file left.
    std::vector<std::string> FolderEntries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(conf_.parent_path())) names.push_back(e.path().filename());
        return names;
    }
    ino_t Inode() const {
        struct stat st {};
        return stat(conf_.c_str(), &st) == 0 ? st.st_ino : 0;
    }
    fs::path dir_, conf_;
};

TEST_F(Register, AddCreatesAMissingFileWithTheOneLine) {
    const Result r = Do("add");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(slurp(conf_), kLine);
    EXPECT_EQ(fs::status(conf_).permissions(), fs::perms(0644));
    EXPECT_EQ(r.out, "registered com.mirvak.fcoe in " + conf_.string() + ": " + kPlugin + "\n");
}

TEST_F(Register, AddAppendsAfterEveryOtherLineByteForByte) {
    spit(conf_, kHostConf);
    ASSERT_EQ(Do("add").status, 0);
    EXPECT_EQ(slurp(conf_), kHostConf + kLine);
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"hba.conf"});
}

TEST_F(Register, AddTwiceWritesNothingTheSecondTime) {
    spit(conf_, kHostConf);
    ASSERT_EQ(Do("add").status, 0);
    const ino_t first = Inode();
    const Result again = Do("add");
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "com.mirvak.fcoe is already registered in " + conf_.string() + ": " + kPlugin + "\n");
    EXPECT_EQ(slurp(conf_), kHostConf + kLine);
    EXPECT_EQ(Inode(), first);  // not even rewritten
}

TEST_F(Register, AddEndsAnUnfinishedLastLineFirst) {
    spit(conf_, "com.other.vendor /usr/lib/libother.so");
    ASSERT_EQ(Do("add").status, 0);
    EXPECT_EQ(slurp(conf_), "com.other.vendor /usr/lib/libother.so\n" + kLine);
}

TEST_F(Register, AddRewritesALineWithAnotherPathWhereItStands) {
    spit(conf_, "# head\ncom.mirvak.fcoe   /opt/old/libmirvakhbaapi.so\ncom.other.vendor /usr/lib/libother.so\n");
    const Result r = Do("add");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(slurp(conf_), "# head\n" + kLine + "com.other.vendor /usr/lib/libother.so\n");
    EXPECT_EQ(r.out, "registered com.mirvak.fcoe in " + conf_.string() + ": " + kPlugin +
                         " (was /opt/old/libmirvakhbaapi.so)\n");
}

TEST_F(Register, AddKeepsOneLineWhenThePluginWasListedTwice) {
    spit(conf_, kLine + "# between\ncom.mirvak.fcoe /opt/old/libmirvakhbaapi.so\n");
    ASSERT_EQ(Do("add").status, 0);
    EXPECT_EQ(slurp(conf_), kLine + "# between\n");
}

TEST_F(Register, RemoveDropsOnlyThePluginsLine) {
    spit(conf_, kHostConf);
    ASSERT_EQ(Do("add").status, 0);
    const Result r = Do("remove");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "removed com.mirvak.fcoe from " + conf_.string() + "\n");
    EXPECT_EQ(slurp(conf_), kHostConf);
}

TEST_F(Register, RemoveWithoutTheLineWritesNothing) {
    spit(conf_, kHostConf);
    const ino_t before = Inode();
    const Result r = Do("remove");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "com.mirvak.fcoe is not registered in " + conf_.string() + "; nothing to do\n");
    EXPECT_EQ(Inode(), before);
    EXPECT_EQ(slurp(conf_), kHostConf);
}

TEST_F(Register, RemoveWithoutAFileCreatesNone) {
    EXPECT_EQ(Do("remove").status, 0);
    EXPECT_FALSE(fs::exists(conf_));
}

TEST_F(Register, StatusTellsWhetherAndWhere) {
    spit(conf_, kHostConf);
    Result r = Do("status");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "com.mirvak.fcoe is not registered in " + conf_.string() + "\n");
    ASSERT_EQ(Do("add").status, 0);
    r = Do("status");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "com.mirvak.fcoe is registered in " + conf_.string() + ": " + kPlugin + "\n");
    r = Run({"status", "--conf", conf_.string(), "--plugin", "/opt/other/libmirvakhbaapi.so"});
    EXPECT_EQ(r.status, 3);
}

TEST_F(Register, KeepsTheFilesModeAndOwner) {
    spit(conf_, kHostConf);
    fs::permissions(conf_, fs::perms(0640));
    if (geteuid() == 0) ASSERT_EQ(chown(conf_.c_str(), kNobody, kNobody), 0);
    struct stat before {};
    ASSERT_EQ(stat(conf_.c_str(), &before), 0);
    ASSERT_EQ(Do("add").status, 0);
    struct stat after {};
    ASSERT_EQ(stat(conf_.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);  // a new file, renamed over the old one
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(Register, FollowsASymbolicLinkAndKeepsIt) {
    const fs::path real = dir_ / "real.conf";
    spit(real, kHostConf);
    fs::create_symlink(real, conf_);
    ASSERT_EQ(Do("add").status, 0);
    EXPECT_TRUE(fs::is_symlink(conf_));
    EXPECT_EQ(slurp(real), kHostConf + kLine);
}

// Files the front library could not read as its configuration.
struct Unparsable {
    const char* name;
    const char* text;
    const char* message;
};

void PrintTo(const Unparsable& u, std::ostream* os) { *os << u.name; }

class RegisterRefuses : public Register, public ::testing::WithParamInterface<Unparsable> {};

TEST_P(RegisterRefuses, AndWritesNothing) {
    const std::string text = GetParam().text;
    spit(conf_, text);
    for (const char* action : {"add", "remove", "status"}) {
        const Result r = Do(action);
        EXPECT_EQ(r.status, 1) << action;
        EXPECT_EQ(r.out, "") << action;
        EXPECT_EQ(r.err, "mirvak-hba-register: " + conf_.string() + " " + GetParam().message +
                             "; it is not in the front library's format, nothing was written\n")
            << action;
        EXPECT_EQ(slurp(conf_), text) << action;
        EXPECT_EQ(FolderEntries(), std::vector<std::string>{"hba.conf"}) << action;
    }
}

const Unparsable kUnparsable[] = {
    {"ThreeFields", "# ok\ncom.other /usr/lib/libother.so\ncom.mirvak.fcoe /usr/lib/a.so extra\n",
     "line 3: expected a library name and its path, found 3 fields"},
    {"OneField", "com.other\n", "line 1: expected a library name and its path, found 1 field"},
};
INSTANTIATE_TEST_SUITE_P(Files, RegisterRefuses, ::testing::ValuesIn(kUnparsable),
                         [](const ::testing::TestParamInfo<Unparsable>& info) { return info.param.name; });

TEST_F(Register, RefusesANulByte) {
    const std::string text("# ok\ncom.other /usr/lib/lib\0other.so\n", 35);
    spit(conf_, text);
    const Result r = Do("add");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mirvak-hba-register: " + conf_.string() +
                         " line 2: holds a NUL byte; it is not in the front library's format, nothing was written\n");
    EXPECT_EQ(slurp(conf_), text);
}

TEST_F(Register, RefusesAFolderForAFile) {
    fs::create_directory(conf_);
    const Result r = Do("add");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mirvak-hba-register: cannot read " + conf_.string() + ": Is a directory; nothing was written\n");
    EXPECT_TRUE(fs::is_directory(conf_));
}

// Root reads and writes anything: the permission cases run as nobody.
std::string AsUnprivileged() {
    return geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
}

TEST_F(Register, AnUnreadableFileIsLeftAlone) {
    spit(conf_, kHostConf);
    fs::permissions(conf_, fs::perms(0200));
    const Result r = Do("add", AsUnprivileged());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mirvak-hba-register: cannot open " + conf_.string() + ": Permission denied; nothing was written\n");
    fs::permissions(conf_, fs::perms(0644));
    EXPECT_EQ(slurp(conf_), kHostConf);
}

TEST_F(Register, AReadOnlyFolderIsLeftAlone) {
    spit(conf_, kHostConf);
    fs::permissions(conf_, fs::perms(0666));
    if (geteuid() != 0) fs::permissions(conf_.parent_path(), fs::perms(0555));
    const Result r = Do("add", AsUnprivileged());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mirvak-hba-register: cannot create a new file in " + conf_.parent_path().string() +
                         ": Permission denied; nothing was written\n");
    EXPECT_EQ(slurp(conf_), kHostConf);
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"hba.conf"});
}

TEST_F(Register, RefusesAPluginPathTheFrontLibraryCannotRead) {
    spit(conf_, kHostConf);
    for (const char* path : {"libmirvakhbaapi.so", "/opt/my lib/libmirvakhbaapi.so"}) {
        const Result r = Run({"add", "--conf", conf_.string(), "--plugin", path});
        EXPECT_EQ(r.status, 2) << path;
        EXPECT_EQ(slurp(conf_), kHostConf) << path;
    }
}

TEST_F(Register, ShowsTheProjectsVersion) {
    const Result r = Run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string("mirvak-hba-register ") + MIRVAK_VERSION + "\n");
}

// mirvak-hba-register ARGS started in the background, its output dropped;
// its process id.
pid_t Start(const std::vector<std::string>& args) {
    std::vector<std::string> words{MIRVAK_REGISTER_PROGRAM};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

int ExitStatus(pid_t pid) {
    int raw = 0;
    if (waitpid(pid, &raw, 0) != pid) return -1;
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// True when some process waits in /proc/locks for a lock on the file with
// this inode ("N: -> FLOCK ... MAJ:MIN:INODE ...").
bool SomeoneWaitsFor(ino_t inode) {
    std::ifstream in("/proc/locks");
    const std::string tail = ":" + std::to_string(inode) + " ";
    for (std::string line; std::getline(in, line);)
        if (line.find("-> FLOCK") != std::string::npos && line.find(tail) != std::string::npos) return true;
    return false;
}

const std::string kAdminLine = "com.admin.added\t/opt/admin/libadmin.so\n";

// A run that finds the lock held waits for it, then reads the file as the
// holder left it: the line written meanwhile stays.
TEST_F(Register, AddWaitsForTheLockAndKeepsALineWrittenMeanwhile) {
    spit(conf_, kHostConf);
    pid_t pid = -1;
    {
        const mv::hbaconf::FileLock lock(conf_.string());
        EXPECT_EQ(lock.path(), (conf_.parent_path() / ".hba.conf.lock").string());
        struct stat st {};
        ASSERT_EQ(stat(lock.path().c_str(), &st), 0);
        pid = Start({"add", "--conf", conf_.string(), "--plugin", kPlugin});
        ASSERT_GT(pid, 0);
        // Generous: the machine may be busy. A run that does not wait ends
        // instead, which is seen at once.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool waits = false;
        while (!(waits = SomeoneWaitsFor(st.st_ino)) && std::chrono::steady_clock::now() < deadline) {
            int raw = 0;
            if (waitpid(pid, &raw, WNOHANG) == pid) {
                pid = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ASSERT_TRUE(waits) << "mirvak-hba-register add did not wait for the lock";
        mv::tool::replace_file(conf_.string(), kHostConf + kAdminLine);
    }
    EXPECT_EQ(ExitStatus(pid), 0);
    EXPECT_EQ(slurp(conf_), kHostConf + kAdminLine + kLine);
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"hba.conf"});  // the lock file went with the lock
}

// Eight runs at once, each registering another copy, while lines are added
// under the lock as another program would: every other line stays, one
// line of the plug-in is left, and nothing else is left in the folder.
TEST_F(Register, ConcurrentAddsLoseNoLine) {
    spit(conf_, kHostConf);
    std::vector<pid_t> runs;
    std::vector<std::string> paths;
    for (int i = 0; i < 8; ++i) {
        paths.push_back("/opt/copy" + std::to_string(i) + "/libmirvakhbaapi.so");
        runs.push_back(Start({"add", "--conf", conf_.string(), "--plugin", paths.back()}));
        ASSERT_GT(runs.back(), 0);
    }
    std::string added;
    for (int i = 0; i < 8; ++i) {
        const mv::hbaconf::FileLock lock(conf_.string());
        mv::hbaconf::Conf c = mv::hbaconf::parse(slurp(conf_));
        const std::string n = std::to_string(i);
        const std::string line = "com.admin.added" + n + "\t/opt/admin/lib" + n + ".so\n";
        c.lines.push_back(mv::hbaconf::Line{line, "", ""});
        added += line;
        mv::tool::replace_file(conf_.string(), c.text());
    }
    for (pid_t pid : runs) EXPECT_EQ(ExitStatus(pid), 0);
    const mv::hbaconf::Conf end = mv::hbaconf::parse(slurp(conf_));
    ASSERT_EQ(end.registered().size(), 1u);
    EXPECT_NE(std::find(paths.begin(), paths.end(), end.registered()[0]), paths.end());
    std::string others;
    for (const mv::hbaconf::Line& l : end.lines)
        if (l.name != mv::hbaconf::kPluginName) others += l.bytes;
    EXPECT_EQ(others, kHostConf + added);
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"hba.conf"});
}

}  // namespace
