// Queues of packets: plain queues, with a mark on each packet that is on one.
//
// A queue's last element has no link, so the link alone doesn't tell that a packet is on a queue, and the
// queue's own calls know only their own last one; the mark does.
#include <qel/pak_ctx.h>

#include "net/qel_pak.hpp"

using namespace qel;
using namespace qel::packets;

namespace {

// Puts a packet that is on no queue on one by put(), which gives null if it refuses.
template <FixedText Label, FixedText Words, class Put>
cerrno put_on_queue(Packet* pak, Put put) {
    if (pak == nullptr || pak->on_queue != 0 || put() == nullptr) return invalid<Label, Words>();
    pak->on_queue = 1;
    event_at<Label, joined<Words, " ok, pak=%p">()>(kChanges, pak);
    return 0;
}

}  // namespace

cerrno qel_pak_queue_enqueue(qel_queue* queue, qel_pak* pak) {
    return put_on_queue<"PAKERROR120", "queue enqueue">(pak, [=] { return qel_queue_enqueue(queue, pak); });
}

cerrno qel_pak_queue_enqueue_head(qel_queue* queue, qel_pak* pak) {
    return put_on_queue<"PAKERROR121", "queue enqueue head">(pak,
                                                             [=] { return qel_queue_requeue(queue, pak); });
}

cerrno qel_pak_queue_insert(qel_queue* queue, qel_pak* pak, qel_pak* previous) {
    return put_on_queue<"PAKERROR122", "queue insert">(pak, [=] {
        const bool has_place = previous != nullptr && previous->on_queue != 0;
        return has_place ? qel_queue_insert(queue, pak, previous) : nullptr;
    });
}

qel_pak* qel_pak_queue_dequeue(qel_queue* queue) {
    auto* pak = static_cast<Packet*>(qel_queue_dequeue(queue));
    if (pak == nullptr) return nullptr;
    pak->on_queue = 0;
    event_at<"PAKEVENT120", "queue dequeue ok, pak=%p">(kChanges, pak);
    return pak;
}

qel_pak* qel_pak_queue_get_next(const qel_pak* pak) {
    return static_cast<Packet*>(qel_queue_get_next(pak));
}
