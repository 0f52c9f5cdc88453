// The front library's configuration file, hba.conf, as mirvak-hba-register
// edits it. Every line is one of: blank, a comment (first non-blank
// character '#'), or two fields separated by blanks: a library name and the
// library's path (or "debuglevel" and a number). The file is kept as bytes:
// only the plug-in's own line is ever added, changed or dropped, every other
// byte stays as it was.
#ifndef MIRVAK_TOOLS_HBA_CONF_H
#define MIRVAK_TOOLS_HBA_CONF_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace mv::hbaconf {

// The name the plug-in is registered under.
constexpr const char* kPluginName = "com.mirvak.fcoe";
// Larger files are refused: hba.conf holds a handful of lines.
constexpr std::size_t kMaxFileBytes = 1 << 20;

// A file that is not in the format above; the message names the line.
struct ParseError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Line {
    std::string bytes;  // the line as it is in the file, its line end included
    std::string name;   // first field of an entry line; empty for blanks and comments
    std::string path;   // second field
};

struct Conf {
    std::vector<Line> lines;
    std::string text() const;
    // The paths the plug-in's name is registered with, in file order.
    std::vector<std::string> registered() const;
};

// Splits text into lines; throws ParseError for a line that is neither
// blank, a comment nor two fields, and for NUL bytes.
Conf parse(const std::string& text);

// Registers the plug-in at path: its first line is rewritten to that path
// when it names another one, later lines of the same name are dropped, and
// a new line goes at the end when there was none. True when anything changed.
bool add(Conf& conf, const std::string& path);
// Drops every line of the plug-in. True when there was one.
bool remove(Conf& conf);

// The file's bytes; an absent file reads as empty (exists is then false).
// Throws std::runtime_error when it cannot be read or is too large.
std::string read_file(const std::string& file, bool* exists);
// The file is written back with mv::tool::replace_file (replace_file.h).

// The file a symbolic link at `file` leads to (`file` itself when it is no
// link). Throws std::runtime_error when the link cannot be followed.
std::string link_target(const std::string& file);

// An exclusive lock on the configuration, held while a run reads, changes
// and replaces it, so that two runs at once (two packages configured at
// once, an administrator and a package) never write over each other's
// lines. It is a lock file beside the file (beside the file a link leads
// to), ".NAME.lock", locked with flock(LOCK_EX): the constructor waits for
// it. The lock file lives only while it is held: the holder removes it
// before unlocking, and a waiter that then gets the lock on the removed file
// sees that the name no longer leads to it and starts again. Another program
// that edits the file in step with these runs takes the lock the same way.
// Throws std::runtime_error ("cannot create a new file in FOLDER: ...") when
// the lock file cannot be made.
class FileLock {
public:
    explicit FileLock(const std::string& file);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace mv::hbaconf

#endif
