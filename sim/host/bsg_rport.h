// The FC transport's block SCSI generic node of a remote port
// (/dev/bsg/rport-H:0-M): the answer to one request a program sends through
// it, computed from the remote port's index entry (sg_index.h). Only the
// ELS that asks for the port's link error status (RLS) is answered; the
// redirector (sg_device.cpp) carries the answer into the caller's
// sg_io_v4.
#ifndef MIRVAK_SIM_BSG_RPORT_H
#define MIRVAK_SIM_BSG_RPORT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sg_index.h"

namespace sim {
namespace sg {

// The transport's request and reply heads, as the FC transport's bsg
// interface lays them out (packed, host byte order).
struct __attribute__((packed)) FcBsgRequest {
    uint32_t msgcode;   // 0
    uint8_t els_code;   // 4: the ELS command of a remote-port ELS request
    uint8_t rest[15];
};
struct __attribute__((packed)) FcBsgReply {
    uint32_t result;                 // 0: 0 or a negative errno
    uint32_t reply_payload_rcv_len;  // 4: data-in bytes
    uint32_t ctels_status;           // 8: 0 accepted, 1 rejected
    uint8_t rjt_action;              // 12
    uint8_t rjt_reason_code;         // 13
    uint8_t rjt_reason_explanation;  // 14
    uint8_t rjt_vendor_unique;       // 15
};
static_assert(offsetof(FcBsgRequest, els_code) == 4, "els_code");
static_assert(sizeof(FcBsgReply) == 16, "fc_bsg_reply with its ELS reply");
static_assert(offsetof(FcBsgReply, ctels_status) == 8, "ctels_status");

constexpr uint32_t kFcBsgRportEls = 0x40000001;
constexpr uint8_t kElsRls = 0x0f;
constexpr uint8_t kElsLsAcc = 0x02;
constexpr uint8_t kElsLsRjt = 0x01;
constexpr uint8_t kLsRjtCommandNotSupported = 0x0b;
// Read Link Status's accept: the command byte, three reserved bytes and six
// 32-bit big-endian counters.
constexpr std::size_t kRlsAcceptLength = 28;

struct BsgAnswer {
    FcBsgReply reply{};
    std::vector<uint8_t> data;  // data-in (the ELS answer), cut by the caller
};

// The answer of remote port r to a request of request_len bytes at request
// (null or short: the transport refuses it, result -EINVAL).
BsgAnswer respond_rport(const RemotePort& r, const void* request, std::size_t request_len);

}  // namespace sg
}  // namespace sim

#endif
