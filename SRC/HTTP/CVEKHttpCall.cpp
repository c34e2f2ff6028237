#include "CVEKHttpCall.h"

#include "CVEKHttpClientShard.h"

namespace {

// Calls action(exchange) on the loop's thread, where it is still in the use that the call is of.
template <class ACTION>
void OnExchange(const std::shared_ptr<CVEKHttpClientShard>& shard, CVEKHttpClientExchange* exchange,
                uint32_t generation, ACTION action) {
    if (shard == nullptr) {
        return;
    }
    const auto run = [shard, exchange, generation, action] {
        if (exchange->generation_ == generation) {
            action(*shard, *exchange);
        }
    };
    if (shard->GetLoop()->IsCurrent()) {
        run();
    } else {
        shard->GetLoop()->Post(run);
    }
}

}  // namespace

void CVEKHttpCall::Cancel() {
    OnExchange(shard_, exchange_, generation_,
               [](CVEKHttpClientShard& shard, CVEKHttpClientExchange& exchange) {
                   shard.Cancel(exchange);
               });
}

void CVEKHttpCall::Resume() {
    OnExchange(shard_, exchange_, generation_,
               [](CVEKHttpClientShard&, CVEKHttpClientExchange& exchange) { exchange.Resume(); });
}

void CVEKHttpCall::Consume(size_t bytes) {
    OnExchange(shard_, exchange_, generation_,
               [bytes](CVEKHttpClientShard&, CVEKHttpClientExchange& exchange) {
                   if (exchange.GetConnection() != nullptr) {
                       exchange.GetConnection()->Consume(exchange, bytes);
                   }
               });
}
