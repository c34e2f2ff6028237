// Logs from two threads into files below a directory, and shows them: write_log DIRECTORY
#include <vek/CVEKDate.h>
#include <vek/CVEKDirectory.h>
#include <vek/CVEKThread.h>
#include <vek/VEKServiceLog.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

class Worker : public CVEKThread {
  public:
    void Initial() override { VEK_SERVICE_LOG(VEK_LOG_INFO, "worker begins"); }
    void Run() override { VEK_SERVICE_LOG(VEK_LOG_WARNING, "worker has %d things to do", 3); }
    void Final() override { VEK_SERVICE_LOG(VEK_LOG_INFO, "worker ends"); }
};

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    // Files named guide.LOG, kept for 7 days, a directory for each day, a new file at a megabyte.
    if (VEK_OPEN_SERVICE_LOG(argv[1], "guide", 7, VEK_LOG_ALL, 1, 1 << 20) == 0) {
        return 1;  // it has said why
    }
    Worker worker;
    if (worker.Execute() == 0) {
        return 1;
    }
    VEK_SERVICE_LOG(VEK_LOG_DEBUG, "main goes on");
    while (worker.IsActive()) {  // the thread cannot be joined, and the object must outlive it
        usleep(10000);
    }
    VEK_CLOSE_SERVICE_LOG();

    CVEKDirectory directory;
    directory.Set((std::string(argv[1]) + "/" + CVEKDate()()).c_str(), "guide*");
    std::vector<std::string> files;
    directory.Scan(files, true);
    for (const std::string& file : files) {
        puts(file.c_str());
    }
    return files.empty() ? 1 : 0;
}
