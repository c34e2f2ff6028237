// CVEKLoadRanks: the programs of an MPI job, the ranks, that carry out one run together.
//
// All calls are those of one thread, the one that made it. What waits for other ranks sleeps
// between its looks, and meanwhile gives signs of life and awaits those of others: every rank gives
// them to rank 0, which answers. One that is silent for too long is taken for dead, and the job
// ends with a message that names it: no call waits for ever. All ranks must make the calls of the
// first group, in the same order.
#ifndef CVEK_LOAD_RANKS_H
#define CVEK_LOAD_RANKS_H

#include <mpi.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "VEKLoadSummary.h"

class CVEKLoadRanks {
  public:
    using Clock = std::chrono::steady_clock;

    // How long a rank may be silent: so many times as long as it should be.
    static constexpr int MAX_SILENCE = 20;

    // Starts MPI, which may take its own words out of the command line.
    CVEKLoadRanks(int& argc, char**& argv);
    // Waits for all others to come here, and ends MPI.
    ~CVEKLoadRanks();
    CVEKLoadRanks(const CVEKLoadRanks&) = delete;
    CVEKLoadRanks& operator=(const CVEKLoadRanks&) = delete;

    // The largest of all statuses. Rank 0 prints the texts of those that are not 0.
    int Agree(int status, const std::string& text);
    // Gives all the text of rank 0.
    void Spread(std::string& text);
    // Finds how far the clocks of all are from that of rank 0.
    void CompareClocks();
    // Waits until all have come here. Returns a moment shortly after, the same for all, by the
    // caller's clock.
    Clock::time_point Meet();
    // Rank 0 gets the sum of all, exactly that which VEK_ST_LOAD_SUMMARY::Add makes of them one
    // after another; the others keep what they had.
    void Reduce(VEK_ST_LOAD_SUMMARY& summary);

    // Does what takes its time on another thread, and gives signs of life meanwhile. What it throws
    // is thrown on.
    void Work(const std::function<void()>& work);
    // Ends the run of all for this cause, as a summary's endedBy_. text: rank 0 prints it.
    void Tell(const std::string& cause, const std::string& text);
    // To be called many times in a second while there is nothing else: gives and awaits signs of
    // life. Returns the cause that some rank has told first, or nothing.
    const std::string& Poll();
    // Ends the job at once.
    [[noreturn]] void Abort(const std::string& text);

    int GetRank() const { return rank_; }
    int GetSize() const { return size_; }
    const std::string& GetHost() const { return peers_[static_cast<size_t>(rank_)].host_; }
    // Ranks with lower numbers on the same host.
    int CountBefore() const;
    // The moment by the clock of rank 0, in nanoseconds.
    int64_t GetTime(Clock::time_point moment) const;
    // What it took to come so far.
    const VEK_ST_LOAD_RANKS& GetTimes() const { return times_; }

  private:
    struct Peer {
        std::string host_;
        int64_t process_ = 0;
        Clock::time_point heard_;
        uint64_t here_ = 0;      // how often it has come to Assemble
        bool isMissed_ = false;  // that has been said
    };
    struct Outgoing {
        std::string text_;
        MPI_Request request_;
    };

    // Starts the transfer of some bytes.
    using Call = std::function<int(void* data, int size, MPI_Request* request)>;

    void Introduce();
    template <class RECORD>
    std::vector<RECORD> Gather(RECORD own);
    void Await(const std::function<int(MPI_Request*)>& call, bool isBrisk = false);
    void Transfer(std::string& text, const Call& call);
    void SendTo(int rank, std::string& text);
    std::string ReceiveFrom(int rank);
    void MeasureClock(int rank);
    void Post(int rank, int tag, const std::string& text);
    void PostToPartners(int tag);
    void Assemble();
    Clock::duration GetPatience() const;
    void TakeMessages();
    void TakeMessage(int rank, int tag, const std::string& text);
    void TakeEnd(int rank, const std::string& text);
    void CheckSilence(Clock::time_point now);
    std::string Describe(int rank) const;
    bool IsPartner(int rank) const { return rank != rank_ && (rank_ == 0 || rank == 0); }

    int rank_ = 0;
    int size_ = 1;
    MPI_Comm control_ = MPI_COMM_NULL;  // for signs of life, and to end the run
    std::vector<Peer> peers_;           // by rank
    Clock::duration beat_{};            // between signs of life
    Clock::time_point lastBeat_;
    Clock::time_point lastPoll_;
    std::list<Outgoing> outgoing_;
    uint64_t assemblies_ = 0;
    bool isLeaving_ = false;
    std::string cause_;
    int64_t offsetNs_ = 0;  // of the own clock, against that of rank 0
    VEK_ST_LOAD_RANKS times_;
};

#endif
