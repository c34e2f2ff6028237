// CVEKEventLoops: a group of event loops, each running on a thread of its own. Servers and clients
// that are made on the group spread their connections over its loops.
#ifndef CVEK_EVENT_LOOPS_H
#define CVEK_EVENT_LOOPS_H

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "CVEKEventLoop.h"
#include "VEKExport.h"

class VEK_API CVEKEventLoops {
  public:
    // Starts the threads; 0: one for each core that the process may use. Throws std::system_error
    // when the system has no more threads or descriptors.
    explicit CVEKEventLoops(unsigned threads = 0);
    // Stops. Not on one of the group's own threads.
    ~CVEKEventLoops();
    CVEKEventLoops(const CVEKEventLoops&) = delete;
    CVEKEventLoops& operator=(const CVEKEventLoops&) = delete;

    // Ends all loops and waits for their threads. Not on one of them. Safe to repeat.
    void Stop();

    size_t GetSize() const { return loops_.size(); }
    CVEKEventLoop& GetLoop(size_t index) { return *loops_[index]; }

    // Waits until the process gets one of the signals, and returns which; until then and later they
    // do nothing else. The empty list stands for SIGINT and SIGTERM; where none of them can be
    // caught, 0 comes back at once. Not on one of the group's threads, and Stop only when it has
    // returned: loops that have ended hear of no signal, and it would wait for ever.
    int WaitForSignal(std::vector<int> signals = {});

  private:
    std::vector<std::unique_ptr<CVEKEventLoop>> loops_;
    std::vector<std::thread> threads_;
};

#endif
