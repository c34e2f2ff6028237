#include "EchoService.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

namespace {

constexpr int STATUS_TOO_MANY = 429;

struct LateAnswer {
    CVEKHttpResponder responder;
    VEK_ST_HTTP_RESPONSE response;
};

void PrintRequest(const VEK_ST_HTTP_ORIGIN& origin, const VEK_ST_HTTP_REQUEST& request) {
    printf("%.*s stream %d %s %s %zu bytes\n", static_cast<int>(origin.peer_.size()),
           origin.peer_.data(), origin.stream_, request.method_.c_str(), request.path_.c_str(),
           request.body_.GetSize());
}

std::shared_ptr<const std::string> MakeFixedBody(int size) {
    return size < 0 ? nullptr : std::make_shared<const std::string>(static_cast<size_t>(size), '0');
}

}  // namespace

EchoService::EchoService(const ServerOptions& options, CVEKEventLoops& loops)
    : options_(options), loops_(loops), fixedBody_(MakeFixedBody(options.bodySize)) {}

void EchoService::Serve(VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
    const VEK_ST_HTTP_ORIGIN origin = responder.GetOrigin();
    if (options_.isVerbose) {
        PrintRequest(origin, request);
    }
    if (origin.streams_ >= static_cast<size_t>(options_.streams)) {
        ++refusals_;
        VEK_ST_HTTP_RESPONSE refusal;
        refusal.status_ = STATUS_TOO_MANY;
        responder.Send(std::move(refusal));
    } else if (options_.delayMs == 0) {
        responder.Send(MakeAnswer(request));
    } else {
        SendLater(std::move(responder), MakeAnswer(request));
    }
}

VEK_ST_HTTP_RESPONSE EchoService::MakeAnswer(VEK_ST_HTTP_REQUEST& request) const {
    VEK_ST_HTTP_RESPONSE answer;
    const std::optional<std::string_view> contentType = request.fields_.Find("content-type");
    if (contentType && !contentType->empty()) {
        answer.fields_.Add("content-type", *contentType);
    }
    answer.body_ = fixedBody_ != nullptr ? CVEKHttpBody(fixedBody_) : std::move(request.body_);
    return answer;
}

// The stream keeps the timer, and the timer the answer: what nobody waits for any more goes.
void EchoService::SendLater(CVEKHttpResponder responder, VEK_ST_HTTP_RESPONSE answer) {
    const auto late =
        std::make_shared<LateAnswer>(LateAnswer{std::move(responder), std::move(answer)});
    auto timer = std::make_shared<CVEKTimer>(
        GetCurrentLoop().After(std::chrono::milliseconds(options_.delayMs),
                               [late] { late->responder.Send(std::move(late->response)); }));
    late->responder.OnGone([timer = std::move(timer)] { timer->Cancel(); });
}

CVEKEventLoop& EchoService::GetCurrentLoop() {
    size_t index = 0;
    while (!loops_.GetLoop(index).IsCurrent()) {
        ++index;
    }
    return loops_.GetLoop(index);
}
