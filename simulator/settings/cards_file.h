/// The cards file.
#ifndef KIVSIM_CARDS_FILE_H
#define KIVSIM_CARDS_FILE_H

#include <string>
#include <vector>

#include "card/CardSettings.h"
#include "common/ConfigNode.h"

namespace kivsim {

/// Reads a cards file (see docs/simulator.md for its keys). Throws BadConfig.
std::vector<CardSettings> load_cards(const std::string& path);

}  // namespace kivsim

#endif
