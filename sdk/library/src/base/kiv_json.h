/// The JSON library, with types that are one type in every image of the process. Include this instead of
/// <nlohmann/json.hpp> where visibility is hidden: else what this library throws of the JSON library's types
/// cannot be caught by type on platforms that tell types apart by address.
#ifndef KIV_JSON_H
#define KIV_JSON_H

#pragma GCC visibility push(default)
#include <nlohmann/json.hpp>
#pragma GCC visibility pop

#endif
