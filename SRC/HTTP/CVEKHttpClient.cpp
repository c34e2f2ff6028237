#include "CVEKHttpClient.h"

#include <utility>

#include "CVEKHttpClientShard.h"
#include "VEKLoopList.h"

CVEKHttpClient::CVEKHttpClient(CVEKEventLoops& loops, VEK_ST_HTTP_CLIENT_OPTIONS options)
    : core_(std::make_shared<CVEKHttpClientCore>(VEK_LIST_LOOPS(loops), std::move(options))) {}

CVEKHttpClient::CVEKHttpClient(CVEKEventLoop& loop, VEK_ST_HTTP_CLIENT_OPTIONS options)
    : core_(std::make_shared<CVEKHttpClientCore>(VEK_LIST_LOOPS(loop), std::move(options))) {}

CVEKHttpClient::~CVEKHttpClient() {
    core_->End();
}

VEK_ST_HTTP_FAILURE CVEKHttpClient::AddTarget(const VEK_ST_HTTP_TARGET& target) {
    return core_->AddTarget(target);
}

VEK_ST_HTTP_FAILURE CVEKHttpClient::AddTarget(const std::string& url) {
    return core_->AddTarget(url);
}

void CVEKHttpClient::Connect() {
    core_->Connect();
}

CVEKHttpCall CVEKHttpClient::Send(VEK_ST_HTTP_REQUEST request, Handler handler,
                                  VEK_ST_HTTP_CALL_OPTIONS options) {
    return core_->Send(std::move(request), std::move(handler), std::move(options));
}

std::future<VEK_ST_HTTP_RESPONSE> CVEKHttpClient::Send(VEK_ST_HTTP_REQUEST request,
                                                       VEK_ST_HTTP_CALL_OPTIONS options) {
    const auto promise = std::make_shared<std::promise<VEK_ST_HTTP_RESPONSE>>();
    std::future<VEK_ST_HTTP_RESPONSE> future = promise->get_future();
    core_->Send(
        std::move(request),
        [promise](VEK_ST_HTTP_RESPONSE& response) { promise->set_value(std::move(response)); },
        std::move(options));
    return future;
}

VEK_HTTP_PREPARED CVEKHttpClient::Prepare(VEK_ST_HTTP_REQUEST request,
                                          VEK_ST_HTTP_CALL_OPTIONS options) {
    return core_->Prepare(std::move(request), std::move(options));
}

CVEKHttpCall CVEKHttpClient::Send(const VEK_HTTP_PREPARED& request, CVEKHttpSink& sink,
                                  uint64_t tag) {
    return core_->Send(request, sink, tag);
}

VEK_ST_HTTP_CLIENT_COUNTERS CVEKHttpClient::GetCounters() const {
    return core_->GetCounters();
}

void CVEKHttpClient::CountBytes(uint64_t& sent, uint64_t& received) const {
    core_->CountBytes(sent, received);
}
