#include "CVEKLoadUser.h"

#include <utility>

void CVEKLoadUser::Walk(uint64_t number, size_t kind, Clock::time_point due) {
    flow_ = &run_.plan_.scenario_.flows_[kind];
    firstStage_ = run_.firstStages_[kind];
    step_ = 0;
    request_.number_ = number;
    values_ = run_.plan_.scenario_.MakeValues(number, run_.plan_.seed_);
    Send(due);
}

void CVEKLoadUser::Send(Clock::time_point due) {
    VEK_ST_HTTP_REQUEST request = GetStage().Render(values_);
    request_.stage_ = firstStage_ + step_;
    request_.due_ = due;
    request_.bytes_ = request.body_.GetSize();
    VEK_ST_HTTP_CALL_OPTIONS options;
    options.target_ = GetStage().target_;
    if (!GetStage().WantsBody()) {
        options.onPiece_ = [](std::string_view) { return true; };  // counted, not kept
    }
    client_.Send(
        std::move(request), [this](VEK_ST_HTTP_RESPONSE& response) { OnResponse(response); },
        std::move(options));
}

void CVEKLoadUser::OnResponse(VEK_ST_HTTP_RESPONSE& response) {
    if (!host_.CountStage(request_, response, Clock::now()) || !TakeAnswer(response)) {
        host_.EndUser(*this, static_cast<bool>(response.failure_));
        return;
    }
    const std::chrono::microseconds pause = ChooseThinkTime();
    ++step_;
    if (pause.count() == 0) {
        GoOn();
    } else {
        isThinking_ = true;
        thinking_ = loop_.After(pause, [this] { GoOn(); });
    }
}

void CVEKLoadUser::GoOn() {
    isThinking_ = false;
    if (step_ == flow_->stages_.size() || host_.IsSendingOver()) {
        host_.EndUser(*this, false);
    } else {
        Send(Clock::now());
    }
}

void CVEKLoadUser::StopThinking() {
    isThinking_ = false;
    thinking_.Cancel();
    host_.EndUser(*this, false);
}

std::chrono::microseconds CVEKLoadUser::ChooseThinkTime() const {
    const VEK_ST_LOAD_STAGE& stage = GetStage();
    const auto range = static_cast<uint64_t>((stage.maxThink_ - stage.minThink_).count());
    const uint64_t chosen =
        VEK_LOAD_MIX(VEK_LOAD_MIX(run_.plan_.seed_ ^ request_.number_) + request_.stage_);
    return stage.minThink_ + std::chrono::microseconds(chosen % (range + 1));
}

// False: the flow cannot go on, for want of a value.
bool CVEKLoadUser::TakeAnswer(const VEK_ST_HTTP_RESPONSE& response) {
    const VEK_ST_LOAD_STAGE& stage = GetStage();
    CVEKLoadAnswer answer(response);
    std::string text;
    for (const CVEKLoadExpectation& expectation : stage.expectations_) {
        if (!expectation.Check(answer, values_, text)) {
            host_.NoteUnexpected(request_.stage_, text);
        }
    }
    bool isGood = true;
    for (const CVEKLoadExtractor& extractor : stage.extractors_) {
        std::string value;
        if (extractor.Extract(answer, value, text)) {
            values_[extractor.GetVariable()] = std::move(value);
        } else {
            host_.NoteUnexpected(request_.stage_, text);
            isGood = false;
        }
    }
    return isGood;
}
