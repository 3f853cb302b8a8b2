// Answers discovery queries over UDP.
#ifndef VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_
#define VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_

#include <array>
#include <cstddef>
#include <cstdint>

#include "net/address.h"
#include "trouble.h"
#include "util/deadline.h"
#include "util/error_text.h"
#include "util/owners.h"

namespace velprobe::standin {

struct UdpPeer {
  Ipv4Address address{};
  std::uint16_t port = 0;
};

struct Responder {
  struct LateAnswer {
    Deadline time;
    UdpPeer to;
  };

  FileDescriptor socket;
  Ipv4Address own_address{};
  std::uint64_t num_queries = 0;
  // Beyond so many that wait for their time, queries go unanswered.
  std::array<LateAnswer, 256> late{};
  std::size_t num_late = 0;
};

// open_responder opens a UDP socket that hears queries to any address of this
// host, broadcasts among them, on the port. Troubles may name further
// addresses of this host.
//   "Error creating discovery socket: %s", "Error binding discovery socket:
//   %s", "Error answering from another address: %s"
ErrorText open_responder(std::uint16_t port, const TroubleMix& troubles,
                         Responder& out_responder);

// answer_query takes one waiting datagram and answers it from the own address,
// or as the trouble has it whose turn it is, if it is a query; with an own
// address on loopback, only if it comes from there too.
void answer_query(Responder& responder, const TroubleMix& troubles);

// next_late_answer tells when answer_late_queries has something to do.
Deadline next_late_answer(const Responder& responder);
void answer_late_queries(Responder& responder);

// What the kinds of trouble do with a query.
void respond_twice(Responder& responder, const Trouble& trouble,
                   const UdpPeer& to);
void respond_late(Responder& responder, const Trouble& trouble,
                  const UdpPeer& to);
void respond_damaged(Responder& responder, const Trouble& trouble,
                     const UdpPeer& to);
void respond_from_elsewhere(Responder& responder, const Trouble& trouble,
                            const UdpPeer& to);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_
