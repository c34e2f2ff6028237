// CVEKHttpBody: the body of a message. A received one is a text. One to send is a text of the
// message's own, a text that many messages share and none copies, or a producer that makes it piece
// by piece while it is sent.
#ifndef CVEK_HTTP_BODY_H
#define CVEK_HTTP_BODY_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "VEKExport.h"

class CVEKHttpFields;

// What a producer says of its body.
enum class VEK_HTTP_PRODUCED {
    MORE,    // it has added bytes to the piece, and is to be called again
    END,     // the bytes that it has added, if any, are the last
    LATER,   // it has added none: it is called again after Resume of the message's handle
    FAILED,  // the message is given up: its stream is reset
};

// Makes a body: adds the next bytes to `piece`, which is empty and has room for them (more than
// `wanted` are taken too, but then lie in memory). It is called as the peer takes the bytes, on the
// connection's loop. Before it says END it may fill `trailers`, which follow the body.
using VEK_HTTP_PRODUCER =
    std::function<VEK_HTTP_PRODUCED(std::string& piece, size_t wanted, CVEKHttpFields& trailers)>;

class VEK_API CVEKHttpBody {
  public:
    CVEKHttpBody() = default;
    CVEKHttpBody(std::string text) : text_(std::move(text)) {}
    CVEKHttpBody(const char* text) : text_(text) {}
    CVEKHttpBody(std::shared_ptr<const std::string> text) : shared_(std::move(text)) {}
    CVEKHttpBody(VEK_HTTP_PRODUCER producer) : producer_(std::move(producer)) {}

    // The text; empty for a produced body.
    const std::string& GetText() const { return shared_ != nullptr ? *shared_ : text_; }
    // Takes the text out; a shared one is copied.
    std::string TakeText() {
        if (shared_ != nullptr) {
            return *shared_;
        }
        return std::move(text_);
    }
    size_t GetSize() const { return GetText().size(); }

    bool IsShared() const { return shared_ != nullptr; }
    bool IsProduced() const { return producer_ != nullptr; }
    const VEK_HTTP_PRODUCER& GetProducer() const { return producer_; }

    // A text of the body's own, to add to; in place of what it was.
    std::string& EditText() {
        shared_.reset();
        producer_ = nullptr;
        return text_;
    }
    // Empties it; memory of a text of its own is kept.
    void Clear() { EditText().clear(); }

  private:
    std::string text_;
    std::shared_ptr<const std::string> shared_;
    VEK_HTTP_PRODUCER producer_;
};

#endif
