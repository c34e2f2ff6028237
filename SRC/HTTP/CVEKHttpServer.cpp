#include "CVEKHttpServer.h"

#include <utility>

#include "CVEKHttpServerCore.h"
#include "VEKLoopList.h"

CVEKHttpServer::CVEKHttpServer(CVEKEventLoops& loops, VEK_ST_HTTP_SERVER_OPTIONS options)
    : core_(std::make_shared<CVEKHttpServerCore>(VEK_LIST_LOOPS(loops), std::move(options))) {}

CVEKHttpServer::CVEKHttpServer(CVEKEventLoop& loop, VEK_ST_HTTP_SERVER_OPTIONS options)
    : core_(std::make_shared<CVEKHttpServerCore>(VEK_LIST_LOOPS(loop), std::move(options))) {}

CVEKHttpServer::~CVEKHttpServer() {
    core_->End();
}

void CVEKHttpServer::SetHandler(Handler handler) {
    core_->handler_ = std::move(handler);
}

void CVEKHttpServer::SetHeadHandler(HeadHandler handler) {
    core_->headHandler_ = std::move(handler);
}

VEK_ST_HTTP_FAILURE CVEKHttpServer::Listen(const VEK_ST_HTTP_LISTENER& listener) {
    return core_->Listen(listener);
}

uint16_t CVEKHttpServer::GetPort(size_t listener) const {
    return core_->GetPort(listener);
}

void CVEKHttpServer::Drain(std::chrono::milliseconds limit, std::function<void()> done) {
    core_->Drain(limit, std::move(done));
}

bool CVEKHttpServer::Stop(std::chrono::milliseconds limit) {
    return core_->Stop(limit);
}

VEK_ST_HTTP_SERVER_COUNTERS CVEKHttpServer::GetCounters() const {
    return core_->GetCounters();
}
