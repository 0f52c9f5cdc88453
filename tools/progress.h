// "mirvak-hba: gathering the snapshot... N s" on standard error while a long
// request runs, once a second after the first, and only when standard error
// is a terminal: nothing at all otherwise (pipes, files, scripts). The line
// is cleared at the end.
#ifndef MIRVAK_TOOLS_PROGRESS_H
#define MIRVAK_TOOLS_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace mv::tool {

class Progress {
public:
    explicit Progress(std::string what);  // "gathering the snapshot"
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void run();

    std::string what_;
    std::thread worker_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
};

}  // namespace mv::tool

#endif
