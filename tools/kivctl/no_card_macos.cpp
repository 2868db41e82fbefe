#include "no_card.h"

namespace kivctl {

const char* why_no_card() {
    return "no card found: the driver extension publishes none; see whether it is activated and a card is "
           "installed";
}

}  // namespace kivctl
