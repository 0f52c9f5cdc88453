#include "bsg_rport.h"

#include <cerrno>
#include <algorithm>
#include <cstring>

namespace sim {
namespace sg {

BsgAnswer respond_rport(const RemotePort& r, const void* request, std::size_t request_len) {
    BsgAnswer a;
    FcBsgRequest rq{};
    if (request == nullptr || request_len < offsetof(FcBsgRequest, els_code) + 1) {
        a.reply.result = static_cast<uint32_t>(-EINVAL);
        return a;
    }
    std::memcpy(&rq, request, std::min(request_len, sizeof rq));
    if (rq.msgcode != kFcBsgRportEls) {
        a.reply.result = static_cast<uint32_t>(-ENOMSG);  // as the transport answers a code it lacks
        return a;
    }
    // The transport passes requests only to a remote port that is logged in.
    if (!r.online) {
        a.reply.result = static_cast<uint32_t>(-ENXIO);
        return a;
    }
    if (rq.els_code != kElsRls) {
        a.reply.ctels_status = 1;
        a.reply.rjt_reason_code = kLsRjtCommandNotSupported;
        a.data = {kElsLsRjt, 0, 0, 0, 0, kLsRjtCommandNotSupported, 0, 0};
        a.reply.reply_payload_rcv_len = static_cast<uint32_t>(a.data.size());
        return a;
    }
    // The link error status block: the driver counts none of its errors.
    a.data.assign(kRlsAcceptLength, 0);
    a.data[0] = kElsLsAcc;
    a.reply.reply_payload_rcv_len = static_cast<uint32_t>(a.data.size());
    return a;
}

}  // namespace sg
}  // namespace sim
