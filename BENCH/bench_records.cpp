// The hot paths of a connection without the engine: building a header vector, queueing a copy of a
// request, taking a response in, stream bookkeeping of the server, and a log line that is masked.
#include <benchmark/benchmark.h>

#include <string>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr uint32_t PAYLOAD_SIZE = 4096;

// A connection with its pools, and without a peer.
template <class CONNECTION>
struct Bench {
    Bench() {
        VEK_ST_HTTP2_OPTIONS options{};
        options.nMaxPayloadSize_ = PAYLOAD_SIZE;
        connection.Initialize("bench", &options);
    }
    CONNECTION connection;
};

void HeaderVector(benchmark::State& state) {
    Bench<CVEKHttp2Request> bench;
    auto& connection = bench.connection;
    VEK_ST_HTTP2_REQUEST request;
    VEK_COPY_TEXT(request.authority_, "localhost");
    VEK_COPY_TEXT(request.method_, "POST");
    VEK_COPY_TEXT(request.path_, "/test/test");
    request.hdr_ = {{"content-type", "text"}, {"routing-host", "127.0.0.1:8000"}};
    request.payload_.size_ = PAYLOAD_SIZE;
    for (auto _ : state) {
        benchmark::DoNotOptimize(connection.PrepareRequest(&request));
    }
}
BENCHMARK(HeaderVector);

// Queues what fits, then starts over: the reset of the pools is part of the figure.
void RequestCopy(benchmark::State& state) {
    Bench<CVEKHttp2Request> bench;
    auto& connection = bench.connection;
    const VEK_HTTP2_HEADER headers = {{"content-type", "text"}};
    const std::string body(PAYLOAD_SIZE, 'x');
    for (auto _ : state) {
        if (connection.Request(1, nullptr, "POST", "/test/test", headers, body.size(), body.data(),
                               false) != 1) {
            connection.Disconnect();
        }
    }
    state.SetBytesProcessed(state.iterations() * PAYLOAD_SIZE);
}
BENCHMARK(RequestCopy);

void ResponseIntake(benchmark::State& state) {
    Bench<CVEKHttp2Request> bench;
    auto& connection = bench.connection;
    const std::string body(PAYLOAD_SIZE, 'x');
    std::string copy(PAYLOAD_SIZE, '\0');
    VEK_ST_HTTP2_RESPONSE response;
    response.payload_.data_ = copy.data();
    for (auto _ : state) {
        connection.InsertRecv(1);
        connection.UpdateHdrRecv(1, ":status", "200");
        connection.UpdateHdrRecv(1, "content-type", "text");
        connection.UpdatePayloadRecv(1, body.data(), body.size());
        connection.OnResponseRecv(1);
        benchmark::DoNotOptimize(connection.GetResponse(&response));
    }
    state.SetBytesProcessed(state.iterations() * PAYLOAD_SIZE);
}
BENCHMARK(ResponseIntake);

void StreamBookkeeping(benchmark::State& state) {
    Bench<CVEKHttp2Response> bench;
    auto& connection = bench.connection;
    VEK_ST_HTTP2_REQUEST_RECV request;
    int stream = 1;
    for (auto _ : state) {
        connection.CreateHttp2StreamData(stream);
        connection.UpdateHdrRecv(stream, ":method", "POST");
        connection.UpdateHdrRecv(stream, ":path", "/test/test");
        connection.OnRequestRecv(stream);
        benchmark::DoNotOptimize(connection.GetRequest(&request));
        connection.DeleteHttp2StreamData(stream);
        stream += 2;
    }
}
BENCHMARK(StreamBookkeeping);

void MaskedLogLine(benchmark::State& state) {
    for (auto _ : state) {
        VEK_SERVICE_LOG(VEK_LOG_DEBUG, "stream(%d)", 1);
    }
}
BENCHMARK(MaskedLogLine);

}  // namespace
