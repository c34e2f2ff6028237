// The log's thread with records and any other bytes in its FIFO, in pieces, and files of any limit:
// it stays within its buffer, and writes the record that comes behind all that.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "CVEKServiceLogWriter.h"
#include "Fuzz.h"

namespace fs = std::filesystem;

namespace {

const std::string LAST = "last\n";

std::string MakeRecord(std::string name, uint64_t length, const std::string& text) {
    name.resize(CVEKServiceLogWriter::NAME_SIZE);
    return name.append(reinterpret_cast<const char*>(&length), sizeof length) + text;
}

bool EndsWithLast(const fs::directory_entry& entry) {
    std::string text(entry.is_regular_file() ? entry.file_size() : 0, '\0');
    std::ifstream(entry.path()).read(text.data(), static_cast<long>(text.size()));
    return text.size() >= LAST.size() && text.substr(text.size() - LAST.size()) == LAST;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return freopen("/dev/null", "w", stdout) == nullptr; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fs::path FOLDER = fs::temp_directory_path() / ("fuzz_log." + std::to_string(getpid()));
    FuzzedDataProvider input(data, size);
    fs::create_directories(FOLDER);
    int fds[2];
    Require(pipe2(fds, O_NONBLOCK) == 0);
    {
        CVEKServiceLogWriter writer;
        const bool isDaily = input.ConsumeBool();
        writer.SetFileOptions({input.ConsumeBool(), input.ConsumeBool(), 2});
        Require(writer.Initialize(FOLDER.c_str(), "fuzz", "LOG", isDaily, input.ConsumeIntegral<uint8_t>()) == 1);
        writer.SetPipe(fds[0]);
        writer.AddWriter("thread");
        writer.SetExit();
        const auto put = [&](const std::string& bytes) { return write(fds[1], bytes.data(), bytes.size()); };
        while (input.remaining_bytes() > 0) {
            const char* name = input.ConsumeBool() ? "MAIN" : "thread";
            const std::string text = input.ConsumeRandomLengthString();
            put(input.ConsumeBool() ? text : MakeRecord(name, text.size() + input.ConsumeIntegral<int8_t>(), text));
            if (input.ConsumeBool()) { writer.Run(); }
        }
        writer.Run();
        put(MakeRecord("MAIN", LAST.size(), LAST));
        writer.Run();
        close(fds[0]), close(fds[1]);
    }
    const fs::recursive_directory_iterator files(FOLDER);
    Require(std::any_of(begin(files), end(files), EndsWithLast));
    fs::remove_all(FOLDER);
    return 0;
}
