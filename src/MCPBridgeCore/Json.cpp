// STUB: replaced by the real implementation.
#include "MCPBridgeCore/Json.hpp"
namespace sentrova {
Json::Json() noexcept : i_(0) {}
Json::~Json() {}
Json::Json(const Json&) : i_(0) {}
Json::Json(Json&&) noexcept : i_(0) {}
Json& Json::operator=(const Json&) { return *this; }
Json& Json::operator=(Json&&) noexcept { return *this; }
Json Json::null() { return {}; }
Json Json::boolean(bool) { return {}; }
Json Json::integer(std::int64_t) { return {}; }
Json Json::unsignedInteger(std::uint64_t) { return {}; }
Json Json::real(double) { return {}; }
Json Json::string(std::string) { return {}; }
Json Json::array(Array) { return {}; }
Json Json::object(Object) { return {}; }
bool Json::isNumber() const noexcept { return false; }
bool Json::isNumberLiteral() const noexcept { return false; }
bool Json::boolValue() const noexcept { return false; }
std::int64_t Json::intValue() const noexcept { return 0; }
std::uint64_t Json::uintValue() const noexcept { return 0; }
double Json::realValue() const noexcept { return 0; }
std::optional<double> Json::numberValue() const noexcept { return {}; }
const std::string& Json::stringValue() const noexcept { static std::string s; return s; }
const Json::Array& Json::arrayValue() const noexcept { static Array a; return a; }
const Json::Object& Json::objectValue() const noexcept { static Object o; return o; }
std::string& Json::mutableString() noexcept { static std::string s; return s; }
Json::Array& Json::mutableArray() noexcept { static Array a; return a; }
Json::Object& Json::mutableObject() noexcept { static Object o; return o; }
const Json* Json::find(std::string_view) const noexcept { return nullptr; }
bool operator==(const Json&, const Json&) { return false; }
std::optional<Json> parseJson(std::string_view) { return {}; }
std::optional<std::string> writeJson(const Json&, JsonWriteOptions) { return {}; }
void appendJsonString(std::string&, std::string_view, JsonWriteOptions) {}
bool jsonKeyLess(std::string_view a, std::string_view b) noexcept { return a < b; }
}
