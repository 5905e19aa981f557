#include "cli/Json.h"

#include "cli/Base64.h"
#include "cli/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>

namespace larkspan::cli {

using nlohmann::json;
using nlohmann::ordered_json;
using platform::Dictionary;
using platform::Error;
using platform::Value;
using Kind = Value::Kind;

namespace {

/// Containers within one another below an item: a message has room for them and for what is around them.
constexpr unsigned kMaximumDepth = 32;

constexpr const char* kDomain = "domain";
constexpr const char* kCode = "code";
constexpr const char* kDescription = "description";

ordered_json jsonFrom(const Value& value);

ordered_json jsonFrom(const Dictionary& dictionary) {
  ordered_json result = ordered_json::object();
  // Keys are unique here; by this way they are not compared again.
  std::vector<std::pair<const std::string, ordered_json>>& entries =
      result.get_ref<ordered_json::object_t&>();
  for (const auto& entry : dictionary) entries.emplace_back(std::string(entry.key()), jsonFrom(entry.value));
  return result;
}

ordered_json jsonFrom(const platform::Array& array) {
  ordered_json result = ordered_json::array();
  for (const Value& member : array) result.push_back(jsonFrom(member));
  return result;
}

/// The double with the float's text: 0.1 and not 0.10000000149011612.
double widened(const Value& value) { return std::strtod(value.description().c_str(), nullptr); }

ordered_json jsonFrom(const Value& value) {
  switch (value.kind()) {
    case Kind::none:
      return nullptr;
    case Kind::boolean:
      return value.boolValue();
    case Kind::integer:
      return value.integerValue();
    case Kind::float32:
      return widened(value);
    case Kind::float64:
      return value.doubleValue();
    case Kind::data:
      return base64(value.data()->view());
    case Kind::array:
      return jsonFrom(value.array());
    case Kind::set:
      return jsonFrom(value.set().members());
    case Kind::dictionary:
      return jsonFrom(value.dictionary());
    case Kind::error: {
      const auto error = value.error();
      return {
          {kDomain, error->domain()}, {kCode, error->code()}, {kDescription, error->localizedDescription()}};
    }
    case Kind::object:
      if (const auto item = value.objectOf<platform::ExtensionItem>()) return jsonFrom(item->userInfo());
      return value.description();
    case Kind::string:
    case Kind::date:
    case Kind::url:
      break;
  }
  return value.description();
}

/// Why the JSON is refused.
struct Refusal {
  std::string reason;
};

const char* nameOf(Kind kind) {
  switch (kind) {
    case Kind::boolean:
      return "true or false";
    case Kind::integer:
      return "an integer of 64 bits";
    case Kind::float32:
    case Kind::float64:
      return "a number";
    case Kind::string:
      return "a text";
    case Kind::data:
      return "data in base64";
    case Kind::date:
      return "a date such as \"2026-11-22T20:38:41Z\"";
    case Kind::url:
      return "a URL";
    case Kind::array:
      return "an array";
    case Kind::dictionary:
      return "an object";
    case Kind::error:
      return "an error {\"domain\": text, \"code\": integer, \"description\": text}";
    case Kind::none:
    case Kind::set:
    case Kind::object:
      break;
  }
  return "a value";
}

Value naturalValue(const json& node, unsigned depth);

Dictionary dictionaryFrom(const json& object, unsigned depth) {
  // Keys are unique here, too, and well-formed.
  Dictionary result = Dictionary::withCapacity(object.size());
  for (const auto& [key, member] : object.items()) {
    result.append(platform::Slice::copy(key), naturalValue(member, depth));
  }
  return result;
}

bool isInteger(const json& node) {
  return node.is_number_integer() && (!node.is_number_unsigned() || node.get<uint64_t>() <= INT64_MAX);
}

Value naturalValue(const json& node, unsigned depth) {
  if (node.is_structured() && depth == kMaximumDepth) {
    throw Refusal{"is nested deeper than " + std::to_string(kMaximumDepth)};
  }
  switch (node.type()) {
    case json::value_t::boolean:
      return node.get<bool>();
    case json::value_t::number_float:
      return node.get<double>();
    case json::value_t::string:
      return std::string_view(node.get_ref<const std::string&>());
    case json::value_t::object:
      return dictionaryFrom(node, depth + 1);
    case json::value_t::array: {
      std::vector<Value> members;
      for (const json& member : node) members.push_back(naturalValue(member, depth + 1));
      return platform::Array(std::move(members));
    }
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      if (!isInteger(node)) throw Refusal{"does not fit into 64 bits"};
      return node.get<int64_t>();
    default:
      return {};
  }
}

std::optional<Value> errorFrom(const json& node) {
  if (!node.is_object()) return std::nullopt;
  const auto domain = node.find(kDomain), code = node.find(kCode), description = node.find(kDescription);
  const bool isDescribed = description != node.end();
  if (domain == node.end() || !domain->is_string() || code == node.end() || !isInteger(*code))
    return std::nullopt;
  if (node.size() != (isDescribed ? 3 : 2) || (isDescribed && !description->is_string())) return std::nullopt;
  const auto& domainText = domain->get_ref<const std::string&>();
  if (!isDescribed) return Error(domainText, code->get<int64_t>());
  return Error(domainText, code->get<int64_t>(), description->get_ref<const std::string&>());
}

/// The node as a value of that kind, or nothing.
std::optional<Value> typedValue(const json& node, Kind kind) {
  const auto fromText = [&](auto&& read) -> std::optional<Value> {
    if (!node.is_string()) return std::nullopt;
    if (auto value = read(node.get_ref<const std::string&>())) return Value(std::move(*value));
    return std::nullopt;
  };
  bool fits = false;
  switch (kind) {
    case Kind::date:
      return fromText(platform::Date::parse);
    case Kind::url:
      return fromText(platform::URL::parse);
    case Kind::data:
      return fromText([](const std::string& text) -> std::optional<platform::Data> {
        const auto bytes = bytesFromBase64(text);
        return bytes ? std::optional(platform::Data::copy(*bytes)) : std::nullopt;
      });
    case Kind::error:
      return errorFrom(node);
    case Kind::float32:
    case Kind::float64:
      if (!node.is_number()) return std::nullopt;
      return kind == Kind::float32 ? Value(static_cast<float>(node.get<double>()))
                                   : Value(node.get<double>());
    case Kind::boolean:
      fits = node.is_boolean();
      break;
    case Kind::integer:
      fits = isInteger(node);
      break;
    case Kind::string:
      fits = node.is_string();
      break;
    case Kind::array:
      fits = node.is_array();
      break;
    case Kind::dictionary:
      fits = node.is_object();
      break;
    case Kind::none:
    case Kind::set:
    case Kind::object:
      fits = true;
      break;
  }
  return fits ? std::optional(naturalValue(node, 0)) : std::nullopt;
}

Kind kindOf(std::string_view key) {
  const auto entries = vocabulary();
  const auto found =
      std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.key == key; });
  return found == entries.end() ? Kind::none : found->kind;
}

MessageItem itemFrom(const json& object) {
  Dictionary userInfo = Dictionary::withCapacity(object.size());
  for (const auto& [key, node] : object.items()) {
    const std::string place = key + " ";
    const Kind kind = kindOf(key);
    try {
      auto value = typedValue(node, kind);
      if (!value) throw Refusal{std::string("must be ") + nameOf(kind)};
      userInfo.append(platform::Slice::copy(key), std::move(*value));
    } catch (const Refusal& refusal) {
      throw Refusal{place + refusal.reason};
    }
  }
  MessageItem item;
  item.setUserInfo(std::move(userInfo));
  return item;
}

}  // namespace

std::string jsonText(const Value& value, bool indented) {
  return printableJson(
      jsonFrom(value).dump(indented ? 2 : -1, ' ', false, ordered_json::error_handler_t::replace));
}

std::variant<Items, std::string> itemsFromJson(std::string_view text) {
  json root;
  try {
    root = json::parse(text);
  } catch (const json::exception& exception) {
    // "[json.exception.parse_error.101] parse error at line 1, column 5: …"
    const std::string_view reason = exception.what();
    return "not JSON: " + std::string(reason.substr(std::min(reason.find("] ") + 2, reason.size())));
  }
  if (!root.is_array()) return "must be an array of objects";
  Items items;
  for (const json& node : root) {
    const std::string place = "item " + std::to_string(items.size());
    if (!node.is_object()) return place + " must be an object";
    try {
      items.push_back(itemFrom(node));
    } catch (const Refusal& refusal) {
      return place + ": " + refusal.reason;
    }
  }
  return items;
}

}  // namespace larkspan::cli
