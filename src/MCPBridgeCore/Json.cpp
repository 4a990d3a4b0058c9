#include "MCPBridgeCore/Json.hpp"

#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <memory>
#include <vector>

namespace sentrova {

namespace {
double literalValue(std::string_view text) noexcept;
} // namespace

// ---------------------------------------------------------------------------------------------
// Whole-tree operations. A line may nest a million levels deep, so copying, destroying and
// comparing never recurse without bound: copying and comparing walk the tree with explicit work
// lists; destroying recurses only a few levels (the usual message) and hands anything deeper
// to a work list.

class JsonTreeOps {
public:
    using CopyTask = std::pair<const Json*, Json*>;

    static bool isContainer(const Json& value) noexcept {
        return value.type_ == Json::Type::array || value.type_ == Json::Type::object;
    }

    // Copies one node; a container gets null slots that the caller fills from the work list.
    static void copyNode(const Json& source, Json& target, std::vector<CopyTask>& pending) {
        switch (source.type_) {
        case Json::Type::string:
        case Json::Type::numberText:
            new (&target.s_) std::string(source.s_);
            target.type_ = source.type_;
            return;
        case Json::Type::array:
            new (&target.a_) Json::Array(source.a_.size());
            target.type_ = Json::Type::array;
            if (!source.a_.empty()) pending.emplace_back(&source, &target);
            return;
        case Json::Type::object:
            new (&target.o_) Json::Object(source.o_.size());
            target.type_ = Json::Type::object;
            if (!source.o_.empty()) pending.emplace_back(&source, &target);
            return;
        default:
            target.u_ = source.u_;
            target.type_ = source.type_;
            return;
        }
    }

    // target must be null on entry.
    static void copyTree(const Json& source, Json& target) {
        if (!isContainer(source)) {
            std::vector<CopyTask> none;
            copyNode(source, target, none);
            return;
        }
        std::vector<CopyTask> pending;
        copyNode(source, target, pending);
        while (!pending.empty()) {
            auto [from, to] = pending.back();
            pending.pop_back();
            if (from->type_ == Json::Type::array) {
                const Json::Array& elements = from->a_;
                Json::Array& copies = to->a_;
                for (std::size_t i = 0; i < elements.size(); ++i) copyNode(elements[i], copies[i], pending);
            } else {
                const Json::Object& members = from->o_;
                Json::Object& copies = to->o_;
                for (std::size_t i = 0; i < members.size(); ++i) {
                    copies[i].key = members[i].key;
                    copyNode(members[i].value, copies[i].value, pending);
                }
            }
        }
    }

    // Frees whatever node holds and leaves it null. Containers nested up to depthLeft levels
    // below node are freed by recursion, which needs no allocation; a deeper one goes to the
    // iterative walk.
    static void destroyValue(Json& node, unsigned depthLeft) noexcept {
        if (node.type_ == Json::Type::array) {
            if (depthLeft == 0) return destroyTree(node);
            for (Json& element : node.a_) destroyChild(element, depthLeft - 1);
        } else if (node.type_ == Json::Type::object) {
            if (depthLeft == 0) return destroyTree(node);
            for (JsonMember& member : node.o_) destroyChild(member.value, depthLeft - 1);
        }
        freeFlat(node);
    }

    // Empties a child before its container goes, so that the container's own destructor finds
    // only nulls and scalars.
    static void destroyChild(Json& child, unsigned depthLeft) noexcept {
        if (child.type_ == Json::Type::string || child.type_ == Json::Type::numberText) {
            std::destroy_at(&child.s_);
            child.type_ = Json::Type::null;
        } else if (isContainer(child)) {
            destroyValue(child, depthLeft);
        }
    }

    // Moves every container child of node onto the work list, leaving node flat.
    static void detachContainers(Json& node, std::vector<Json>& pending) {
        if (node.type_ == Json::Type::array) {
            for (Json& element : node.a_) {
                if (isContainer(element)) pending.push_back(std::move(element));
            }
        } else if (node.type_ == Json::Type::object) {
            for (JsonMember& member : node.o_) {
                if (isContainer(member.value)) pending.push_back(std::move(member.value));
            }
        }
    }

    // Frees a container of any depth. Each node popped from the work list is made flat before
    // it is freed, so no destructor nests more than one level.
    static void destroyTree(Json& root) noexcept {
        std::vector<Json> pending;
        detachContainers(root, pending);
        freeFlat(root);
        while (!pending.empty()) {
            Json node = std::move(pending.back());
            pending.pop_back();
            detachContainers(node, pending);
            freeFlat(node);
        }
    }

    // Frees node, whose children hold no containers, and leaves it null.
    static void freeFlat(Json& node) noexcept {
        switch (node.type_) {
        case Json::Type::string:
        case Json::Type::numberText: std::destroy_at(&node.s_); break;
        case Json::Type::array: std::destroy_at(&node.a_); break;
        case Json::Type::object: std::destroy_at(&node.o_); break;
        default: break;
        }
        node.type_ = Json::Type::null;
        node.u_ = 0;
    }

    static bool sameScalar(const Json& a, const Json& b) noexcept {
        if (a.type() == Json::Type::real) { // a literal and a double compare by value
            const double x = a.realValue();
            const double y = b.realValue();
            return x == y || (std::isnan(x) && std::isnan(y));
        }
        switch (a.type_) {
        case Json::Type::null: return true;
        case Json::Type::boolean: return a.b_ == b.b_;
        case Json::Type::integer: return a.i_ == b.i_;
        case Json::Type::unsignedInteger: return a.u_ == b.u_;
        case Json::Type::real: return a.d_ == b.d_ || (std::isnan(a.d_) && std::isnan(b.d_));
        case Json::Type::string: return a.s_ == b.s_;
        default: return false;
        }
    }

    static bool equalTrees(const Json& a, const Json& b) {
        if (a.type() != b.type()) return false;
        if (!isContainer(a)) return sameScalar(a, b);
        std::vector<std::pair<const Json*, const Json*>> pending{{&a, &b}};
        while (!pending.empty()) {
            auto [x, y] = pending.back();
            pending.pop_back();
            if (x->type() != y->type()) return false;
            if (x->type_ == Json::Type::array) {
                if (x->a_.size() != y->a_.size()) return false;
                for (std::size_t i = 0; i < x->a_.size(); ++i) pending.emplace_back(&x->a_[i], &y->a_[i]);
            } else if (x->type_ == Json::Type::object) {
                if (x->o_.size() != y->o_.size()) return false;
                for (std::size_t i = 0; i < x->o_.size(); ++i) {
                    if (x->o_[i].key != y->o_[i].key) return false;
                    pending.emplace_back(&x->o_[i].value, &y->o_[i].value);
                }
            } else if (!sameScalar(*x, *y)) {
                return false;
            }
        }
        return true;
    }
};

// ---------------------------------------------------------------------------------------------
// Value model

namespace {
// How many container levels destruction frees by recursion before it switches to a work list:
// enough for any ordinary message, small enough to keep the stack shallow.
constexpr unsigned kRecursiveDestroyDepth = 32;
} // namespace

Json::Json(const Json& other) : u_(0) {
    try {
        copyFrom(other);
    } catch (...) { // a half-built copy is still a valid tree: free it, as no destructor will
        destroy();
        throw;
    }
}

Json& Json::operator=(const Json& other) {
    if (this != &other) {
        Json copy(other); // other may live inside this tree
        destroy();
        moveFrom(std::move(copy));
    }
    return *this;
}

Json& Json::operator=(Json&& other) noexcept {
    if (this != &other) {
        Json taken(std::move(other)); // other may live inside this tree
        destroy();
        moveFrom(std::move(taken));
    }
    return *this;
}

void Json::destroy() noexcept { JsonTreeOps::destroyValue(*this, kRecursiveDestroyDepth); }

void Json::copyFrom(const Json& other) { JsonTreeOps::copyTree(other, *this); }

Json Json::null() { return {}; }

Json Json::boolean(bool value) {
    Json json;
    json.type_ = Type::boolean;
    json.b_ = value;
    return json;
}

Json Json::integer(std::int64_t value) {
    Json json;
    json.type_ = Type::integer;
    json.i_ = value;
    return json;
}

Json Json::unsignedInteger(std::uint64_t value) {
    Json json;
    json.type_ = Type::unsignedInteger;
    json.u_ = value;
    return json;
}

Json Json::real(double value) {
    Json json;
    json.type_ = Type::real;
    json.d_ = value;
    return json;
}

Json Json::string(std::string value) {
    Json json;
    new (&json.s_) std::string(std::move(value));
    json.type_ = Type::string;
    return json;
}

Json Json::array() { return array(Array()); }

Json Json::array(Array elements) {
    Json json;
    new (&json.a_) Array(std::move(elements));
    json.type_ = Type::array;
    return json;
}

Json Json::object() { return object(Object()); }

Json Json::object(Object members) {
    Json json;
    new (&json.o_) Object(std::move(members));
    json.type_ = Type::object;
    return json;
}

bool Json::isNumber() const noexcept { return type_ == Type::boolean || isNumberLiteral(); }

bool Json::isNumberLiteral() const noexcept {
    return type_ == Type::integer || type_ == Type::unsignedInteger || type_ == Type::real || type_ == Type::numberText;
}

bool Json::boolValue() const noexcept { return type_ == Type::boolean && b_; }
std::int64_t Json::intValue() const noexcept { return type_ == Type::integer ? i_ : 0; }
std::uint64_t Json::uintValue() const noexcept { return type_ == Type::unsignedInteger ? u_ : 0; }
double Json::realValue() const noexcept {
    if (type_ == Type::numberText) return literalValue(s_);
    return type_ == Type::real ? d_ : 0.0;
}

std::string_view Json::numberText() const noexcept { return type_ == Type::numberText ? std::string_view(s_) : std::string_view(); }

std::optional<double> Json::numberValue() const noexcept {
    switch (type_) {
    case Type::boolean: return b_ ? 1.0 : 0.0;
    case Type::integer: return static_cast<double>(i_);
    case Type::unsignedInteger: return static_cast<double>(u_);
    case Type::real: return d_;
    case Type::numberText: return literalValue(s_);
    default: return std::nullopt;
    }
}

const std::string& Json::stringValue() const noexcept {
    static const std::string empty;
    return type_ == Type::string ? s_ : empty;
}

const Json::Array& Json::arrayValue() const noexcept {
    static const Array empty;
    return type_ == Type::array ? a_ : empty;
}

const Json::Object& Json::objectValue() const noexcept {
    static const Object empty;
    return type_ == Type::object ? o_ : empty;
}

const Json* Json::find(std::string_view key) const noexcept {
    if (type_ != Type::object) return nullptr;
    for (auto it = o_.rbegin(); it != o_.rend(); ++it) {
        if (it->key == key) return &it->value;
    }
    return nullptr;
}

bool operator==(const Json& a, const Json& b) { return JsonTreeOps::equalTrees(a, b); }

namespace {

// The value of a number literal as the reader keeps it (NaN and the infinities included).
// from_chars refuses a literal beyond the double range; strtod_l then gives the infinity or the
// zero (with its sign) that every server's reader gives.
double literalValue(std::string_view text) noexcept {
    if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (text == "Infinity") return std::numeric_limits<double>::infinity();
    if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc() && last == end) return value;
    if (error != std::errc::result_out_of_range) return std::numeric_limits<double>::quiet_NaN();
    static const locale_t posix = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    const std::string terminated(text); // strtod_l reads up to a NUL
    return strtod_l(terminated.c_str(), nullptr, posix);
}

} // namespace

} // namespace sentrova
