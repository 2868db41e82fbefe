/// What a card does with the text of a network reconfiguration.
#ifndef KIVSIM_RECONFIGURE_H
#define KIVSIM_RECONFIGURE_H

#include <string>
#include <vector>

#include "card/CardSettings.h"

namespace kivsim {

/// Carries out "macethP=ADDRESS/PREFIX,VLAN,TTL,TOS macethS=... macptp=A,B,C,D,E
/// mactun=ADDRESS/PREFIX,VLAN,TIME" on the interface list. Returns an empty text, or why the command is
/// refused; then nothing changes.
std::string reconfigure(std::vector<InterfaceSettings>& interfaces, const std::string& command);

}  // namespace kivsim

#endif
