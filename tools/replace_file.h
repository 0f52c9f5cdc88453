// Replacing a file's contents in one step, for the programs that write
// files others read (mirvak-hba metrics --output, mirvak-hba-register).
#ifndef MIRVAK_TOOLS_REPLACE_FILE_H
#define MIRVAK_TOOLS_REPLACE_FILE_H

#include <stdexcept>
#include <string>

namespace mv::tool {

// A replacement that could not be done. what() names the step and the file
// it was about ("cannot write /etc/.hba.conf.Ab12Cd: No space left on
// device"); the file is as it was.
struct ReplaceFailed : std::runtime_error {
    enum Step {
        Look,    // the file's link or status could not be read
        Create,  // no new file could be made in the folder (path: the folder)
        Write,   // the new file could not be written, given its mode or synced (path: the new file)
        Owner,   // the new file could not be given the old file's owner
        Rename,  // the new file could not take the old one's name (path: the new file)
    };
    Step step;
    std::string path;  // the file, folder or new file the step was about
    int err;           // the errno of the step
    ReplaceFailed(Step s, const std::string& p, int e, const std::string& message)
        : std::runtime_error(message), step(s), path(p), err(e) {}
};

// Replaces the file's contents at once: the bytes go into a new file in the
// same folder with the old file's mode and owner (0644 and the caller for a
// new file), which is synced and then renamed over it, and the folder is
// synced; a reader sees the old contents or the new, never a part. A
// symbolic link is followed and stays. Throws ReplaceFailed, leaving the
// file as it was and no new file behind.
void replace_file(const std::string& file, const std::string& bytes);

}  // namespace mv::tool

#endif
