#pragma once

#include "larkspan/items/MessageItem.h"

#include <string>
#include <string_view>
#include <variant>

/// Values as JSON (RFC 8259) and items from it. Integers are JSON integers, both kinds of float are numbers,
/// dates are RFC 3339 text, URLs their text, data is base64 (RFC 4648), an error is {"domain", "code",
/// "description"}, a set an array, and an item the object of its dictionary. What JSON cannot say, such as
/// infinity, is null.
namespace larkspan::cli {

/// Printable, without a line end; on several lines if `indented`.
std::string jsonText(const platform::Value& value, bool indented);

/// The items of a JSON array of objects, or the reason in English why it is none. The kind of a
/// value is that of its key in the vocabulary; other keys take what the JSON looks like.
std::variant<Items, std::string> itemsFromJson(std::string_view text);

}  // namespace larkspan::cli
