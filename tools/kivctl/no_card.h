/// Why a scan finds nothing, as far as this platform can tell.
#ifndef KIVCTL_NO_CARD_H
#define KIVCTL_NO_CARD_H

namespace kivctl {

/// A text for a person: the reason and what to try.
const char* why_no_card();

}  // namespace kivctl

#endif
