#include "CVEKHttpPrepared.h"

#include "VEKHttp2Field.h"
#include "VEKHttpFieldCheck.h"

namespace {

std::string_view OwnOr(const std::string& own, std::string_view other) {
    return own.empty() ? other : own;
}

}  // namespace

void VEK_HTTP_LIST_FIELDS(const VEK_ST_HTTP_REQUEST& request, const CVEKHttpClientTarget& target,
                          std::vector<nghttp2_nv>& fields) {
    const char* scheme = target.HasTls() ? "https" : "http";
    fields.push_back(VEK_HTTP2_FIELD(":method", request.method_));
    if (request.method_ != "CONNECT") {  // RFC 9113, section 8.5
        fields.push_back(VEK_HTTP2_FIELD(":scheme", OwnOr(request.scheme_, scheme)));
        fields.push_back(VEK_HTTP2_FIELD(":path", request.path_));
    }
    fields.push_back(VEK_HTTP2_FIELD(":authority", OwnOr(request.authority_, target.authority_)));
    for (const CVEKHttpFields::Field& field : request.fields_) {
        fields.push_back(VEK_HTTP2_FIELD(field.first, field.second));
    }
}

CVEKHttpPrepared::CVEKHttpPrepared(VEK_ST_HTTP_REQUEST&& request,
                                   VEK_ST_HTTP_CALL_OPTIONS&& options,
                                   std::shared_ptr<const CVEKHttpClientTarget> target)
    : request_(std::move(request)),
      options_(std::move(options)),
      target_(std::move(target)),
      fault_(request_.body_.IsProduced() ? "a prepared request's body cannot be produced"
                                         : VEK_HTTP_FIND_FAULT(request_)) {
    if (target_ != nullptr) {
        VEK_HTTP_LIST_FIELDS(request_, *target_, fields_);
    }
}
