#include "CVEKHttpAddresses.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr uint64_t MAX_AGE_MS = 30000;
constexpr int IPV4 = 4;
constexpr int IPV6 = 6;

addrinfo MakeHints(int family, int flags) {
    addrinfo hints{};
    hints.ai_family = family == IPV4 ? AF_INET : family == IPV6 ? AF_INET6 : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    return hints;
}

}  // namespace

struct CVEKHttpAddresses::Search {
    uv_getaddrinfo_t request{};
    CVEKHttpAddresses* owner = nullptr;  // null when it has gone
};

CVEKHttpAddresses::CVEKHttpAddresses(CVEKLoopCore& loop, const VEK_ST_HTTP_TARGET& target,
                                     Handler handler)
    : loop_(loop), target_(target), handler_(std::move(handler)) {}

CVEKHttpAddresses::~CVEKHttpAddresses() {
    if (search_ != nullptr) {
        search_->owner = nullptr;
        uv_cancel(reinterpret_cast<uv_req_t*>(&search_->request));
    }
    if (list_ != nullptr) {
        freeaddrinfo(list_);
    }
}

const addrinfo* CVEKHttpAddresses::Get() const {
    if (unixAddress_.sun_family == AF_UNIX) {
        return &unix_;
    }
    const bool isOld = isStale_ || loop_.GetNow() - foundTime_ > MAX_AGE_MS;
    return isNumeric_ || !isOld ? list_ : nullptr;
}

void CVEKHttpAddresses::Find() {
    if (!target_.unixPath_.empty()) {
        TakeUnix();
        return;
    }
    if (list_ != nullptr) {
        freeaddrinfo(std::exchange(list_, nullptr));
    }
    const std::string port = std::to_string(target_.port_);
    const addrinfo numeric = MakeHints(target_.family_, AI_NUMERICHOST | AI_NUMERICSERV);
    if (getaddrinfo(target_.host_.c_str(), port.c_str(), &numeric, &list_) == 0) {
        isNumeric_ = true;  // which did not have to ask anybody
        handler_(nullptr);
        return;
    }
    list_ = nullptr;
    search_ = new Search();
    search_->owner = this;
    search_->request.data = search_;
    const addrinfo hints = MakeHints(target_.family_, AI_NUMERICSERV);
    const int result = uv_getaddrinfo(loop_.GetLoop(), &search_->request, OnFound,
                                      target_.host_.c_str(), port.c_str(), &hints);
    if (result != 0) {
        delete std::exchange(search_, nullptr);
        handler_(uv_strerror(result));
    }
}

void CVEKHttpAddresses::TakeUnix() {
    unixAddress_.sun_family = AF_UNIX;
    memcpy(unixAddress_.sun_path, target_.unixPath_.c_str(),
           std::min(target_.unixPath_.size(), sizeof unixAddress_.sun_path - 1));
    unix_.ai_family = AF_UNIX;
    unix_.ai_socktype = SOCK_STREAM;
    unix_.ai_addr = reinterpret_cast<sockaddr*>(&unixAddress_);
    unix_.ai_addrlen = sizeof unixAddress_;
    handler_(nullptr);
}

void CVEKHttpAddresses::OnFound(uv_getaddrinfo_t* request, int status, addrinfo* list) {
    auto* search = static_cast<Search*>(request->data);
    CVEKHttpAddresses* owner = search->owner;
    delete search;
    if (owner == nullptr) {
        uv_freeaddrinfo(list);
        return;
    }
    owner->search_ = nullptr;
    owner->list_ = list;
    owner->foundTime_ = owner->loop_.GetNow();
    owner->isStale_ = false;
    owner->handler_(status == 0 ? nullptr : uv_strerror(status));
}
