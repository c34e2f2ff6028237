#include "CVEKLoadRanks.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <thread>
#include <utility>

#include "VEKLoadJson.h"
#include "VEKLoadStatus.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

enum Tag { TAG_TEXT = 1, TAG_CLOCK };              // of the world
enum Control { TAG_BEAT = 1, TAG_END, TAG_HERE };  // of the communicator for control

constexpr milliseconds SHORTEST_BEAT{250};
constexpr milliseconds BEAT_OF_RANK{2};  // rank 0 answers 500 ranks in a second, and no more
constexpr int MISSED_BEATS = 3;          // until a rank is missed, while the run ends
constexpr microseconds FIRST_PAUSE{20};
constexpr milliseconds LONGEST_PAUSE{1};
constexpr milliseconds BRISK_TIME{5};  // in which a wait does not sleep
constexpr int CLOCK_ROUNDS = 16;
constexpr milliseconds LEAD{100};  // from the barrier to the start, for all to hear of it
constexpr size_t MAX_PIECE = size_t{1} << 30;
constexpr char GONE[] = " is silent: it is dead, stopped or cut off";

int64_t Nanoseconds(std::chrono::steady_clock::duration time) {
    return std::chrono::duration_cast<nanoseconds>(time).count();
}

uint64_t Since(std::chrono::steady_clock::time_point start) {
    return static_cast<uint64_t>(Nanoseconds(std::chrono::steady_clock::now() - start));
}

// Records of a fixed size, for Gather.
struct Introduction {
    int64_t process_;
    char host_[MPI_MAX_PROCESSOR_NAME];
};
struct Answer {
    int32_t status_;
    char text_[512];
};

void Copy(char* to, size_t size, const std::string& text) {
    to[text.copy(to, size - 1)] = '\0';
}

}  // namespace

CVEKLoadRanks::CVEKLoadRanks(int& argc, char**& argv) {
    const Clock::time_point start = Clock::now();
    int threads = MPI_THREAD_SINGLE;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &threads);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank_);
    MPI_Comm_size(MPI_COMM_WORLD, &size_);
    MPI_Comm_dup(MPI_COMM_WORLD, &control_);
    peers_.resize(static_cast<size_t>(size_));
    beat_ = std::max<Clock::duration>(SHORTEST_BEAT, BEAT_OF_RANK * size_);
    lastPoll_ = Clock::now();
    for (Peer& peer : peers_) {
        peer.heard_ = lastPoll_;
    }
    Introduce();
    times_.count_ = 1;
    times_.joinNs_ = Since(start);
}

CVEKLoadRanks::~CVEKLoadRanks() {
    Assemble();  // with signs of life: some may never come
    isLeaving_ = true;
    Assemble();  // behind the last of them
    MPI_Comm_free(&control_);
    MPI_Finalize();
}

// The records of all, by rank.
template <class RECORD>
std::vector<RECORD> CVEKLoadRanks::Gather(RECORD own) {
    std::vector<RECORD> all(peers_.size());
    Await([&](MPI_Request* request) {
        return MPI_Iallgather(&own, sizeof own, MPI_BYTE, all.data(), sizeof own, MPI_BYTE,
                              MPI_COMM_WORLD, request);
    });
    return all;
}

void CVEKLoadRanks::Introduce() {
    Introduction own{};
    int length = 0;
    own.process_ = getpid();
    MPI_Get_processor_name(own.host_, &length);
    const std::vector<Introduction> all = Gather(own);
    for (size_t i = 0; i < all.size(); ++i) {
        peers_[i].host_ = all[i].host_;
        peers_[i].process_ = all[i].process_;
    }
}

std::string CVEKLoadRanks::Describe(int rank) const {
    const Peer& peer = peers_[static_cast<size_t>(rank)];
    return "rank " + std::to_string(rank) + " (" + peer.host_ + ", process " +
           std::to_string(peer.process_) + ")";
}

int CVEKLoadRanks::CountBefore() const {
    const auto self = peers_.begin() + rank_;
    return static_cast<int>(std::count_if(
        peers_.begin(), self, [&](const Peer& peer) { return peer.host_ == self->host_; }));
}

int64_t CVEKLoadRanks::GetTime(Clock::time_point moment) const {
    return Nanoseconds(moment.time_since_epoch()) - offsetNs_;
}

// Starts a call that does not block, and waits for its end: MPI's own way to wait would take a
// core.
void CVEKLoadRanks::Await(const std::function<int(MPI_Request*)>& call, bool isBrisk) {
    MPI_Request request = MPI_REQUEST_NULL;
    call(&request);
    const Clock::time_point start = Clock::now();
    Clock::duration pause = FIRST_PAUSE;
    for (int isDone = 0;;) {
        MPI_Test(&request, &isDone, MPI_STATUS_IGNORE);
        if (isDone != 0) {
            return;
        }
        if (isBrisk && Clock::now() - start < BRISK_TIME) {
            sched_yield();
            continue;
        }
        Poll();
        std::this_thread::sleep_for(pause);
        pause = std::min<Clock::duration>(2 * pause, LONGEST_PAUSE);
    }
}

int CVEKLoadRanks::Agree(int status, const std::string& text) {
    Answer own{};
    own.status_ = status;
    Copy(own.text_, sizeof own.text_, text);
    const std::vector<Answer> all = Gather(own);
    std::map<std::string, std::vector<int>> ranks;  // by their texts
    for (int i = 0; i < size_; ++i) {
        const Answer& answer = all[static_cast<size_t>(i)];
        status = std::max(status, int{answer.status_});
        if (answer.status_ != 0) {
            ranks[answer.text_].push_back(i);
        }
    }
    for (const auto& [reason, whose] : ranks) {
        if (rank_ == 0) {
            std::string who = Describe(whose[0]);
            if (whose.size() > 1) {
                who.append(" and ").append(std::to_string(whose.size() - 1)).append(" more");
            }
            VEK_LOAD_COMPLAIN(status, who.append(": ").append(reason));
        }
    }
    return status;
}

// Hands a size and then a text, in pieces whose size MPI can count, to a call for each.
void CVEKLoadRanks::Transfer(std::string& text, const Call& call) {
    uint64_t size = text.size();
    Await([&](MPI_Request* request) { return call(&size, sizeof size, request); });
    text.resize(size);
    for (size_t begin = 0; begin < size; begin += MAX_PIECE) {
        const auto piece = static_cast<int>(std::min<size_t>(MAX_PIECE, size - begin));
        Await([&](MPI_Request* request) { return call(&text[begin], piece, request); });
    }
}

void CVEKLoadRanks::Spread(std::string& text) {
    Transfer(text, [](void* data, int size, MPI_Request* request) {
        return MPI_Ibcast(data, size, MPI_BYTE, 0, MPI_COMM_WORLD, request);
    });
}

void CVEKLoadRanks::SendTo(int rank, std::string& text) {
    Transfer(text, [rank](const void* data, int size, MPI_Request* request) {
        return MPI_Isend(data, size, MPI_BYTE, rank, TAG_TEXT, MPI_COMM_WORLD, request);
    });
}

std::string CVEKLoadRanks::ReceiveFrom(int rank) {
    std::string text;
    Transfer(text, [rank](void* data, int size, MPI_Request* request) {
        return MPI_Irecv(data, size, MPI_BYTE, rank, TAG_TEXT, MPI_COMM_WORLD, request);
    });
    return text;
}

// One after another, so that none waits for others between its question and the answer.
void CVEKLoadRanks::CompareClocks() {
    const Clock::time_point start = Clock::now();
    if (rank_ != 0) {
        MeasureClock(0);
    }
    for (int rank = 1; rank_ == 0 && rank < size_; ++rank) {
        MeasureClock(rank);
    }
    times_.clocksNs_ = Since(start);
}

// Of several questions, the one that was answered soonest tells most: the other clock has stood at
// its answer somewhere between the question and the answer's coming.
void CVEKLoadRanks::MeasureClock(int rank) {
    int64_t found[] = {0, INT64_MAX};  // distance, time from question to answer
    const auto send = [&](void* data, int size) {
        Await(
            [&](MPI_Request* request) {
                return MPI_Isend(data, size, MPI_BYTE, rank, TAG_CLOCK, MPI_COMM_WORLD, request);
            },
            true);
    };
    const auto receive = [&](void* data, int size, bool isBrisk) {
        Await(
            [&](MPI_Request* request) {
                return MPI_Irecv(data, size, MPI_BYTE, rank, TAG_CLOCK, MPI_COMM_WORLD, request);
            },
            isBrisk);
    };
    for (int i = 0; i < CLOCK_ROUNDS; ++i) {
        int64_t other = 0;
        const int64_t asked = Nanoseconds(Clock::now().time_since_epoch());
        if (rank_ == 0) {
            send(&other, sizeof other);
            receive(&other, sizeof other, true);
            const int64_t answered = Nanoseconds(Clock::now().time_since_epoch());
            if (answered - asked < found[1]) {
                found[0] = other - (asked + (answered - asked) / 2);
                found[1] = answered - asked;
            }
        } else {
            receive(&other, sizeof other, i > 0);
            other = Nanoseconds(Clock::now().time_since_epoch());
            send(&other, sizeof other);
        }
    }
    if (rank_ == 0) {
        send(found, sizeof found);
    } else {
        receive(found, sizeof found, true);
        offsetNs_ = found[0];
        times_.clockErrorNs_ = static_cast<uint64_t>(found[1] / 2);
    }
}

CVEKLoadRanks::Clock::time_point CVEKLoadRanks::Meet() {
    const Clock::time_point start = Clock::now();
    Await([](MPI_Request* request) { return MPI_Ibarrier(MPI_COMM_WORLD, request); });
    times_.barrierNs_ = rank_ == 0 ? Since(start) : 0;  // the others wait for rank 0 first
    int64_t moment = GetTime(Clock::now() + LEAD);
    Await([&](MPI_Request* request) {
        return MPI_Ibcast(&moment, sizeof moment, MPI_BYTE, 0, MPI_COMM_WORLD, request);
    });
    return Clock::time_point(nanoseconds(moment + offsetNs_));
}

// Up a binomial tree: each adds what it gets from the ranks behind it, which have done so before,
// and hands all of it to one before it. So the order stays that of the ranks.
void CVEKLoadRanks::Reduce(VEK_ST_LOAD_SUMMARY& summary) {
    Assemble();
    const Clock::time_point start = Clock::now();
    VEK_ST_LOAD_SUMMARY sum;
    std::string text;
    std::string error;
    const auto read = [&](VEK_ST_LOAD_SUMMARY& to) {
        if (!VEK_LOAD_READ_JSON(text, to, error)) {
            Abort("the ranks are programs of different versions: " + error);
        }
    };
    const auto write = [&](const VEK_ST_LOAD_SUMMARY& from) {
        Work([&] { text = VEK_LOAD_WRITE_JSON(from); });
    };
    // The own one, too: texts change there that are no UTF-8.
    write(summary);
    read(sum);
    int step = 1;
    for (; step < size_ && (rank_ & step) == 0; step *= 2) {
        if (rank_ + step < size_) {
            text = ReceiveFrom(rank_ + step);
            Work([&] {
                VEK_ST_LOAD_SUMMARY other;
                read(other);
                sum.Add(other);
            });
        }
    }
    if (rank_ != 0) {
        write(sum);
        SendTo(rank_ - step, text);
    } else {
        summary = std::move(sum);
        times_.reductionNs_ = Since(start);
    }
}

void CVEKLoadRanks::Work(const std::function<void()>& work) {
    std::future<void> done = std::async(std::launch::async, work);
    while (done.wait_for(LONGEST_PAUSE) != std::future_status::ready) {
        Poll();
    }
    done.get();
}

void CVEKLoadRanks::Post(int rank, int tag, const std::string& text) {
    outgoing_.push_back({text, MPI_REQUEST_NULL});
    Outgoing& last = outgoing_.back();
    MPI_Isend(last.text_.data(), static_cast<int>(last.text_.size()), MPI_BYTE, rank, tag, control_,
              &last.request_);
}

void CVEKLoadRanks::PostToPartners(int tag) {
    for (int rank = 0; rank < size_; ++rank) {
        if (IsPartner(rank)) {
            Post(rank, tag, "");
        }
    }
}

// As a barrier, but that nobody sends to a rank which may be dead: MPI would end this one, too,
// before it can say whom it misses.
void CVEKLoadRanks::Assemble() {
    ++assemblies_;
    if (rank_ != 0) {
        PostToPartners(TAG_HERE);
    }
    const auto isHere = [this](const Peer& peer) { return peer.here_ >= assemblies_; };
    peers_[static_cast<size_t>(rank_)].here_ = assemblies_;
    const auto end = rank_ == 0 ? peers_.end() : peers_.begin() + 1;
    const Clock::time_point start = Clock::now();
    for (auto missed = peers_.begin(); (missed = std::find_if_not(missed, end, isHere)) != end;) {
        Poll();
        if (isLeaving_ && Clock::now() - start > GetPatience()) {
            Abort(Describe(static_cast<int>(missed - peers_.begin())) + GONE);
        }
        std::this_thread::sleep_for(LONGEST_PAUSE);
    }
    if (rank_ == 0) {
        PostToPartners(TAG_HERE);
    }
    while (!outgoing_.empty()) {
        std::this_thread::sleep_for(FIRST_PAUSE);
        Poll();
    }
}

// How long to wait at the very end, where nobody gives signs of life any more: they would be
// messages that MPI's end meets. Rank 0 has to be the first to give up, as it knows who is missed.
CVEKLoadRanks::Clock::duration CVEKLoadRanks::GetPatience() const {
    return (rank_ == 0 ? 2 : 3) * MAX_SILENCE * beat_;
}

void CVEKLoadRanks::Tell(const std::string& cause, const std::string& text) {
    std::string message = cause + '\n' + text;
    if (rank_ == 0) {
        TakeEnd(0, message);
    } else {
        Post(0, TAG_END, message);
    }
}

// The first one counts. Rank 0 hands it on with its answers to signs of life.
void CVEKLoadRanks::TakeEnd(int rank, const std::string& message) {
    if (!cause_.empty()) {
        return;
    }
    const size_t end = message.find('\n');
    cause_ = message.substr(0, end);
    if (rank_ == 0 && end + 1 < message.size()) {
        VEK_LOAD_COMPLAIN(VEK_LOAD_FAILED, Describe(rank) + ": " + message.substr(end + 1));
    }
}

const std::string& CVEKLoadRanks::Poll() {
    const Clock::time_point now = Clock::now();
    TakeMessages();
    outgoing_.remove_if([](Outgoing& outgoing) {
        int isDone = 0;
        MPI_Test(&outgoing.request_, &isDone, MPI_STATUS_IGNORE);
        return isDone != 0;
    });
    // Who was not awake himself has heard nobody.
    if (now - lastPoll_ > beat_) {
        for (Peer& peer : peers_) {
            peer.heard_ += now - lastPoll_;
        }
    }
    lastPoll_ = now;
    if (now - lastBeat_ >= beat_ && !isLeaving_) {
        lastBeat_ = now;
        if (rank_ != 0) {
            PostToPartners(TAG_BEAT);
        }
        CheckSilence(now);
    }
    return cause_;
}

void CVEKLoadRanks::TakeMessages() {
    int isThere = 0;
    MPI_Status status;
    while (MPI_Iprobe(MPI_ANY_SOURCE, MPI_ANY_TAG, control_, &isThere, &status) == MPI_SUCCESS &&
           isThere != 0) {
        int size = 0;
        MPI_Get_count(&status, MPI_BYTE, &size);
        std::string text(static_cast<size_t>(size), '\0');
        MPI_Recv(text.data(), size, MPI_BYTE, status.MPI_SOURCE, status.MPI_TAG, control_,
                 MPI_STATUS_IGNORE);
        TakeMessage(status.MPI_SOURCE, status.MPI_TAG, text);
    }
}

void CVEKLoadRanks::TakeMessage(int rank, int tag, const std::string& text) {
    Peer& peer = peers_[static_cast<size_t>(rank)];
    peer.heard_ = Clock::now();
    if (tag == TAG_END) {
        TakeEnd(rank, text);
    } else if (tag == TAG_HERE) {
        ++peer.here_;
    } else if (rank_ == 0) {
        Post(rank, cause_.empty() ? TAG_BEAT : TAG_END, cause_.empty() ? "" : cause_ + '\n');
    }
}

void CVEKLoadRanks::CheckSilence(Clock::time_point now) {
    for (int rank = 0; rank < size_; ++rank) {
        Peer& peer = peers_[static_cast<size_t>(rank)];
        const Clock::duration silence = now - peer.heard_;
        if (!IsPartner(rank)) {
            continue;
        }
        if (silence > MAX_SILENCE * beat_) {
            Abort(Describe(rank) + GONE);
        }
        // A launcher that has seen the death of a rank gives the others little time.
        if (!cause_.empty() && silence > MISSED_BEATS * beat_ && !peer.isMissed_) {
            peer.isMissed_ = true;
            VEK_LOAD_COMPLAIN(VEK_LOAD_FAILED, "no sign of life from " + Describe(rank));
        }
    }
}

void CVEKLoadRanks::Abort(const std::string& text) {
    VEK_LOAD_COMPLAIN(VEK_LOAD_FAILED, text);
    MPI_Abort(MPI_COMM_WORLD, VEK_LOAD_FAILED);
    _exit(VEK_LOAD_FAILED);
}
