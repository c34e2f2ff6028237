#include "CVEKHttpStream.h"

#include <algorithm>

#include "CVEKHttpConnection.h"

void CVEKHttpStream::SetBody(const CVEKHttpBody& body, CVEKHttpFields& trailers) {
    body_ = &body;
    trailers_ = &trailers;
    piece_.clear();
    sent_ = 0;
    isProduced_ = body.IsProduced();
    isEnd_ = !isProduced_;
    isWaiting_ = false;
    hasFailed_ = false;
    hasProduced_ = false;
    areTrailersSubmitted_ = false;
    isStopped_ = false;
}

void CVEKHttpStream::Resume() {
    if (isWaiting_ && connection_ != nullptr) {
        isWaiting_ = false;
        connection_->ResumeBody(*this);
    }
}

ssize_t CVEKHttpStream::Offer(size_t max, End& end) {
    if (isStopped_) {
        return LATER;
    }
    if (isProduced_ && sent_ == piece_.size() && !isEnd_ && !Produce(max)) {
        return hasFailed_ ? FAILED : LATER;
    }
    const size_t left = (isProduced_ ? piece_ : body_->GetText()).size() - sent_;
    if (left > max || !isEnd_) {
        return static_cast<ssize_t>(std::min(left, max));
    }
    if (trailers_->IsEmpty()) {
        end = END_BODY;
    } else {
        if (!areTrailersSubmitted_ && !SubmitTrailers()) {
            return FAILED;
        }
        end = END_TRAILERS;
    }
    return static_cast<ssize_t>(left);
}

// Fills the next piece. False: there is none now, or none any more.
bool CVEKHttpStream::Produce(size_t max) {
    piece_.clear();
    sent_ = 0;
    hasProduced_ = true;
    switch (body_->GetProducer()(piece_, max, *trailers_)) {
        case VEK_HTTP_PRODUCED::MORE:
            hasFailed_ = piece_.empty();
            return !hasFailed_;
        case VEK_HTTP_PRODUCED::END:
            isEnd_ = true;
            return true;
        case VEK_HTTP_PRODUCED::LATER:
            isWaiting_ = true;
            return false;
        default:
            hasFailed_ = true;
            return false;
    }
}

bool CVEKHttpStream::SubmitTrailers() {
    areTrailersSubmitted_ = true;
    hasFailed_ = !connection_->SubmitTrailers(*this, *trailers_);
    return !hasFailed_;
}

const char* CVEKHttpStream::Take(size_t length) {
    const char* data = (isProduced_ ? piece_ : body_->GetText()).data() + sent_;
    sent_ += length;
    connection_->NoteProgress(*this);
    return data;
}
