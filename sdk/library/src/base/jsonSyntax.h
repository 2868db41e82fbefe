/// Whether a text is JSON, without a value built from it. Stateless; any thread.
#ifndef KIV_JSON_SYNTAX_H
#define KIV_JSON_SYNTAX_H

#include <string>

namespace kiv::json {

/// What the JSON library's own accept() says of every text, and for most sooner.
bool is_valid(const std::string& text);

}  // namespace kiv::json

#endif
