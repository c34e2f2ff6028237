#include "VEKLoadTargets.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "CVEKLoadScenarioReader.h"
#include "VEKCommonOpenSSL.h"
#include "VEKLoadField.h"
#include "VEKLoadInput.h"
#include "VEKLoadUrl.h"
#include "VEKTlsOption.h"

namespace {

int ReadVersion(const std::string& version) {
    return version == "1.2" ? TLS1_2_VERSION : TLS1_3_VERSION;
}

std::shared_ptr<const VEK_ST_TLS_OPTIONS> MakeTls(const VEK_ST_LOAD_OPTIONS& options) {
    auto tls = std::make_shared<VEK_ST_TLS_OPTIONS>();
    tls->minVersion_ = ReadVersion(options.tlsMin_);
    tls->maxVersion_ = ReadVersion(options.tlsMax_);
    const bool isSuites = options.ciphers_.rfind("TLS_", 0) == 0;
    (isSuites ? tls->suites_ : tls->ciphers_) = options.ciphers_;
    tls->caFile_ = options.caFile_;
    tls->isVerifying_ = !options.isInsecure_;
    tls->isClientResuming_ = options.isResuming_;
    tls->keyLogFile_ = options.keyLog_;
    if (!options.certificate_.empty()) {
        tls->identities_.push_back({options.certificate_, options.key_});
    }
    return tls;
}

// That of the programs from before the options of TLS.
std::shared_ptr<SSL_CTX> MakeOldContext(const VEK_ST_LOAD_OPTIONS& options, std::string& error) {
    const bool hasIdentity = !options.certificate_.empty();
    SSL_CTX* context =
        VEK_SSL_CREATE_CLIENT_CTX(hasIdentity ? options.key_.c_str() : nullptr,
                                  hasIdentity ? options.certificate_.c_str() : nullptr, nullptr);
    if (context == nullptr) {
        error =
            "--tls12: cannot use key " + options.key_ + " with certificate " + options.certificate_;
    }
    return {context, SSL_CTX_free};
}

bool SetTls(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_HTTP_TARGET& target, std::string& error) {
    if (options.isTls12_) {
        target.name_ = options.sni_;
        target.context_ = MakeOldContext(options, error);
        return target.context_ != nullptr;
    }
    target.tls_ = MakeTls(options);
    return true;
}

bool HasTls(const VEK_ST_HTTP_TARGET& target) {
    return target.tls_ != nullptr || target.context_ != nullptr;
}

// "host:port:address"
bool Resolve(const std::string& rule, VEK_ST_HTTP_TARGET& target, std::string& error) {
    const size_t first = rule[0] == '[' ? rule.find(']') : 0;
    const size_t colon = rule.find(':', first == std::string::npos ? 0 : first);
    const size_t second = colon == std::string::npos ? colon : rule.find(':', colon + 1);
    std::string host;
    uint16_t port = 0;
    if (second == std::string::npos || second + 1 == rule.size() ||
        !VEK_LOAD_READ_HOST(rule.substr(0, second), host, port, 0, error)) {
        error = "--resolve: \"" + rule + "\" is not host:port:address";
        return false;
    }
    if (host == target.host_ && port == target.port_) {
        target.name_ = target.name_.empty() ? host : target.name_;
        target.host_ = rule.substr(second + 1);
        if (target.host_.size() > 2 && target.host_[0] == '[') {
            target.host_ = target.host_.substr(1, target.host_.size() - 2);
        }
    }
    return true;
}

bool MakeTarget(const VEK_ST_LOAD_OPTIONS& options, const VEK_ST_LOAD_URL& url,
                VEK_ST_HTTP_TARGET& target, std::string& error) {
    target.host_ = url.host_;
    target.port_ = url.port_;
    target.authority_ = url.authority_;
    target.name_ = options.sni_.empty() ? url.host_ : options.sni_;
    target.family_ = options.isV4_ ? 4 : options.isV6_ ? 6 : 0;
    target.unixPath_ = options.unixPath_;
    target.isUpgrade_ = options.isUpgrade_ && !url.isTls_;
    if (!options.connectTo_.empty() &&
        !VEK_LOAD_READ_HOST(options.connectTo_, target.host_, target.port_, 0, error)) {
        error = "--connect-to: " + error;
        return false;
    }
    return std::all_of(options.resolve_.begin(), options.resolve_.end(),
                       [&](const auto& rule) { return Resolve(rule, target, error); }) &&
           (!url.isTls_ || SetTls(options, target, error));
}

// Gives the index of the URL's host among the plan's targets.
bool AddTarget(const VEK_ST_LOAD_OPTIONS& options, const VEK_ST_LOAD_URL& url,
               VEK_ST_LOAD_PLAN& plan, size_t& index, std::string& error) {
    VEK_ST_HTTP_TARGET target;
    if (!MakeTarget(options, url, target, error)) {
        return false;
    }
    const auto known =
        std::find_if(plan.targets_.begin(), plan.targets_.end(), [&](const auto& one) {
            return one.authority_ == target.authority_ && HasTls(one) == HasTls(target);
        });
    index = static_cast<size_t>(known - plan.targets_.begin());
    if (known == plan.targets_.end()) {
        plan.targets_.push_back(std::move(target));
    }
    return true;
}

// "name: value"
bool AddHeader(const std::string& text, VEK_ST_LOAD_STAGE& stage, std::string& error) {
    const size_t colon = text.find(':', 1);
    std::string name = VEK_LOAD_LOWER(text.substr(0, colon));
    const size_t begin =
        colon == std::string::npos ? colon : text.find_first_not_of(' ', colon + 1);
    const std::string value = begin == std::string::npos ? "" : text.substr(begin);
    const bool isAuthority = name == ":authority";
    if (colon == std::string::npos || !(isAuthority || VEK_LOAD_IS_NAME(name)) ||
        !VEK_LOAD_IS_VALUE(value)) {
        error = "-H: \"" + text + "\" is no header field, \"name: value\"";
        return false;
    }
    if (isAuthority) {
        stage.authority_ = CVEKLoadTemplate(value);
    } else {
        stage.fields_.emplace_back(std::move(name), value);
    }
    return true;
}

// What is the same for all URLs.
bool MakeStage(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_LOAD_STAGE& stage, std::string& error) {
    std::string body = options.data_;
    if (options.data_.rfind('@', 0) == 0 &&
        !VEK_LOAD_READ_FILE(options.data_.substr(1), body, error)) {
        error = "-d: " + error;
        return false;
    }
    if (options.bodySize_ > 0) {
        body.assign(options.bodySize_, 'x');
    }
    stage.body_ = CVEKLoadTemplate(std::move(body));
    const bool hasBody = options.hasData_ || options.bodySize_ > 0;
    stage.method_ = !options.method_.empty() ? options.method_ : hasBody ? "POST" : "GET";
    if (!VEK_LOAD_IS_METHOD(stage.method_)) {
        error = "-X: \"" + stage.method_ + "\" is no method";
        return false;
    }
    return std::all_of(options.headers_.begin(), options.headers_.end(),
                       [&](const auto& header) { return AddHeader(header, stage, error); });
}

bool MakeUrlFlows(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_LOAD_PLAN& plan, std::string& error) {
    VEK_ST_LOAD_STAGE stage;
    if (!MakeStage(options, stage, error)) {
        return false;
    }
    for (size_t i = 0; i < options.urls_.size(); ++i) {
        VEK_ST_LOAD_URL url;
        if (!VEK_LOAD_READ_URL(options.urls_[i], url, error) ||
            !AddTarget(options, url, plan, stage.target_, error)) {
            return false;
        }
        stage.path_ = CVEKLoadTemplate(url.path_);
        stage.name_ = stage.method_ + " " + options.urls_[i];
        plan.scenario_.flows_.push_back(
            {stage.name_, options.weights_.empty() ? 1 : options.weights_[i], {stage}});
    }
    return true;
}

bool MakeScenario(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_LOAD_PLAN& plan, std::string& error) {
    if (!CVEKLoadScenarioReader().Read(options.scenario_, plan.scenario_, error)) {
        return false;
    }
    const std::string text = options.urls_.empty() ? plan.scenario_.url_ : options.urls_[0];
    VEK_ST_LOAD_URL url;
    size_t index = 0;
    if (text.empty()) {
        error = "a URL is needed, here or in " + options.scenario_;
        return false;
    }
    return VEK_LOAD_READ_URL(text, url, error) && AddTarget(options, url, plan, index, error);
}

}  // namespace

bool VEK_LOAD_MAKE_PLAN(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_LOAD_PLAN& plan,
                        std::string& error) {
    plan = VEK_ST_LOAD_PLAN();
    if (!(options.scenario_.empty() ? MakeUrlFlows(options, plan, error)
                                    : MakeScenario(options, plan, error))) {
        return false;
    }
    if (plan.scenario_.GetStages().size() > VEK_ST_LOAD_PLAN::MAX_STAGES) {
        error = "more than " + std::to_string(VEK_ST_LOAD_PLAN::MAX_STAGES) + " URLs or steps";
        return false;
    }
    const size_t targets = plan.targets_.size();
    const VEK_ST_LOAD_SHARE& share = options.share_;
    const auto split = [&share](size_t all) {
        return static_cast<size_t>(share.CountBelow(static_cast<int64_t>(all)));
    };
    plan.connections_ = std::max<size_t>(split((options.connections_ + targets - 1) / targets), 1);
    plan.streams_ = options.streams_;
    plan.threads_ = options.threads_;
    plan.users_ = split(options.users_);
    if (options.users_ > 0 && options.users_ < static_cast<size_t>(share.of_)) {
        error = "--users has to be " + std::to_string(share.of_) + " at least: one for each part";
        return false;
    }
    plan.share_ = share;
    plan.requestsOfConnection_ = options.churn_;
    plan.warmUp_ = options.warmUp_;
    plan.seed_ = options.seed_;
    plan.timeout_ = std::chrono::milliseconds(options.timeoutMs_);
    plan.settings_.streamWindow_ = options.window_;
    plan.settings_.connectionWindow_ = options.window_;
    plan.settings_.headerTableBytes_ = options.headerTable_;
    plan.settings_.frameBytes_ = options.maxFrame_;
    return true;
}

CVEKLoadSchedule VEK_LOAD_MAKE_SCHEDULE(const VEK_ST_LOAD_OPTIONS& options) {
    return {options.GetCount(), options.phases_, options.length_, options.warmUp_, options.share_};
}
