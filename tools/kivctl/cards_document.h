/// The values of all cards as one JSON document.
#ifndef KIVCTL_CARDS_DOCUMENT_H
#define KIVCTL_CARDS_DOCUMENT_H

#include "collector.h"

namespace kivctl {

/// Of the schema kivctl.cards/1: the last good values, each with its age.
Json cards_document(const Snapshot& snapshot);

}  // namespace kivctl

#endif
