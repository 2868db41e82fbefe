/// The card's registers that host software uses.
#ifndef KIV_REGISTERS_H
#define KIV_REGISTERS_H

#include <cstdint>

namespace kiv::registers {

/// Where a register is. Bits are counted from the least significant, 0.
struct Register {
    uint32_t function;  ///< PCI function whose driver client reads it.
    uint32_t bar;
    uint64_t offset;  ///< Bytes from the start of the BAR.
    unsigned width;   ///< Bits.
};

// clang-format off
//                                   function BAR offset   width    bits and meaning
inline constexpr Register kIdentity0 {0,      0,  0x00000, 64};  // identification word
inline constexpr Register kIdentity1 {0,      0,  0x00008, 64};  // identification word
inline constexpr Register kCardWord  {0,      0,  0x00010, 64};  // identification word; the card word of a scan
inline constexpr Register kIdentity3 {0,      0,  0x00018, 64};  // identification word
inline constexpr Register kReadable  {0,      0,  0x00038, 64};  // only has to be readable
inline constexpr Register kStatus    {1,      0,  0x00140, 64};  // links and PTP state: kStatus... below
inline constexpr Register kAncMode   {0,      1,  0x0000C, 32};  // kAncHighPriority: high-priority queues for ANC
inline constexpr Register kTxControl {0,      1,  0x20004, 32};  // transmit streams: 0-7, 25, 26, reported as they are
inline constexpr Register kTxReg404  {0,      1,  0x20404, 32};  // transmit streams: 0-7
inline constexpr Register kTxReg804  {0,      1,  0x20804, 32};  // transmit streams: 0-7
inline constexpr Register kRxControl {0,      1,  0x30004, 32};  // receive streams, as kTxControl
inline constexpr Register kRxReg404  {0,      1,  0x30404, 32};  // receive streams: 0-7
inline constexpr Register kRxReg804  {0,      1,  0x30804, 32};  // receive streams: 0-7
inline constexpr Register kReference0{0,      1,  0x21430, 32};  // port 0: what its counters count against
inline constexpr Register kCounterA0 {0,      1,  0x21460, 32};  // port 0: first traffic counter
inline constexpr Register kCounterB0 {0,      1,  0x214A0, 32};  // port 0: second traffic counter
inline constexpr Register kReference1{0,      1,  0x31830, 32};  // port 1: what its counters count against
inline constexpr Register kCounterA1 {0,      1,  0x31860, 32};  // port 1: first traffic counter
inline constexpr Register kCounterB1 {0,      1,  0x318E0, 32};  // port 1: second traffic counter

inline constexpr unsigned kStatusLink0     = 6;   // port 0 has link
inline constexpr unsigned kStatusLink1     = 7;   // port 1 has link
inline constexpr unsigned kStatusPtp0      = 8;   // PTP state 0: of the three bits the lowest that is set counts
inline constexpr unsigned kStatusPtp1      = 9;   // PTP state 1
inline constexpr unsigned kStatusPtp3      = 10;  // PTP state 3
inline constexpr unsigned kStreamBit25     = 25;  // of kTxControl and kRxControl
inline constexpr unsigned kStreamBit26     = 26;
inline constexpr unsigned kAncHighPriority = 29;  // of kAncMode
// clang-format on

}  // namespace kiv::registers

#endif
