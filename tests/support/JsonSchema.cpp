#include "JsonSchema.h"

#include <glib.h>
#include <rapidjson/pointer.h>

#include <new>
#include <stdexcept>
#include <utility>
#include <valijson/constraint_builder.hpp>
#include <valijson/constraints/concrete_constraints.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>
#include <vector>

namespace {

using valijson::adapters::Adapter;

// What "pattern" is called for the validator, so that it leaves it to Pattern.
constexpr const char* kPattern = "x-pattern";

// JSON Schema's regular expressions with GLib. Those of the standard library, which the validator
// uses, know bytes instead of characters, and call themselves for each of them: a long text
// overflows the stack.
class Regex {
 public:
  explicit Regex(const std::string& pattern) {
    GError* error = nullptr;
    constexpr auto kFlags = static_cast<GRegexCompileFlags>(G_REGEX_DOLLAR_ENDONLY);
    // Not optimised: its compiled form gives up on a long text.
    m_regex = g_regex_new(inGLib(pattern).c_str(), kFlags, G_REGEX_MATCH_DEFAULT, &error);
    if (m_regex != nullptr) return;
    const std::string reason = error->message;
    g_error_free(error);
    throw std::runtime_error(reason);
  }
  ~Regex() { g_regex_unref(m_regex); }
  Regex(const Regex& other) : m_regex(g_regex_ref(other.m_regex)) {}
  Regex& operator=(const Regex&) = delete;

  bool Matches(const std::string& text) const {
    GError* error = nullptr;
    const bool matches = g_regex_match_full(m_regex, text.data(), static_cast<gssize>(text.size()),
                                            0, G_REGEX_MATCH_DEFAULT, nullptr, &error) != FALSE;
    if (error == nullptr) return matches;
    const std::string reason = error->message;
    g_error_free(error);
    throw std::runtime_error(reason);
  }

 private:
  // JavaScript's \uXXXX is \x{XXXX} here.
  static std::string inGLib(const std::string& pattern) {
    constexpr std::size_t kDigits = 4;
    std::string converted;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
      if (pattern[i] != '\\' || i + 1 == pattern.size()) {
        converted += pattern[i];
      } else if (pattern[i + 1] == 'u') {
        converted += "\\x{" + pattern.substr(i + 2, kDigits) + "}";
        i += 1 + kDigits;
      } else {
        converted += pattern.substr(i++, 2);
      }
    }
    return converted;
  }

  GRegex* m_regex;
};

class Pattern final : public valijson::constraints::PolyConstraint {
 public:
  explicit Pattern(const std::string& pattern) : m_pattern(pattern), m_regex(pattern) {}

  bool validate(const Adapter& target, const std::vector<std::string>& context,
                valijson::ValidationResults* results) const override {
    if (!target.isString() || m_regex.Matches(target.asString())) return true;
    if (results != nullptr) results->pushError(context, "does not match " + m_pattern);
    return false;
  }

 private:
  valijson::constraints::Constraint* cloneInto(void* memory) const override {
    return new (memory) Pattern(*this);
  }
  std::size_t sizeOf() const override { return sizeof(Pattern); }

  std::string m_pattern;
  Regex m_regex;
};

class PatternBuilder final : public valijson::ConstraintBuilder {
 public:
  valijson::constraints::Constraint* make(const Adapter& value) const override {
    return std::make_unique<Pattern>(value.asString()).release();
  }
};

// Puts what they refer to in the place of all references, which the validator loses in part when
// there are some within others, and renames the patterns. Nothing may refer to itself.
void prepare(rapidjson::Value& value, const rapidjson::Value& root,
             rapidjson::Document::AllocatorType& allocator) {
  while (value.IsObject() && value.HasMember("$ref")) {
    const rapidjson::Value* const found = rapidjson::Pointer(value["$ref"].GetString()).Get(root);
    if (found == nullptr) throw std::runtime_error("a schema refers to what there is not");
    value.CopyFrom(*found, allocator);
  }
  if (value.IsArray()) {
    for (rapidjson::Value& item : value.GetArray()) prepare(item, root, allocator);
  } else if (value.IsObject()) {
    for (auto& member : value.GetObject()) {
      if (member.name == "pattern" && member.value.IsString()) {
        member.name.SetString(rapidjson::StringRef(kPattern));
      }
      prepare(member.value, root, allocator);
    }
  }
}

}  // namespace

struct JsonSchema::Compiled {
  valijson::Schema schema;
};

JsonSchema::JsonSchema(const JsonText::Value& root, const JsonText::Value& schema)
    : m_compiled(std::make_unique<Compiled>()) {
  rapidjson::Document document;
  document.CopyFrom(schema, document.GetAllocator());
  prepare(document, root, document.GetAllocator());
  valijson::SchemaParser parser;  // draft 7, whose keywords it deletes
  parser.addConstraintBuilder(kPattern, std::make_unique<PatternBuilder>().release());
  parser.populateSchema(valijson::adapters::RapidJsonAdapter(document), m_compiled->schema);
}

JsonSchema::~JsonSchema() = default;
JsonSchema::JsonSchema(JsonSchema&& other) noexcept = default;
JsonSchema& JsonSchema::operator=(JsonSchema&& other) noexcept = default;

std::string JsonSchema::FaultOf(const JsonText::Value& value) const {
  valijson::Validator validator;
  valijson::ValidationResults results;
  if (validator.validate(m_compiled->schema, valijson::adapters::RapidJsonAdapter(value),
                         &results)) {
    return {};
  }
  // The first one is the innermost; the others say that what is around it fails.
  valijson::ValidationResults::Error error;
  results.popError(error);
  std::string fault;
  for (const std::string& place : error.context) {
    if (place != "<root>") fault += place;
  }
  return fault.empty() ? error.description : fault + " " + error.description;
}

bool JsonSchema::Fits(const JsonText::Value& value) const {
  valijson::Validator validator;
  return validator.validate(m_compiled->schema, valijson::adapters::RapidJsonAdapter(value),
                            nullptr);
}
