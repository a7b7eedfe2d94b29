#include "NyApi/Properties/JsonSerializer.h"

#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "NyApi/Exception.h"
#include "NyApi/Properties/ArrayBase.h"
#include "NyApi/Properties/Structure.h"
#include "NyApi/Properties/ValueBase.h"

namespace Ny::Properties {

namespace {

using nlohmann::json;

// Builds one JSON value from a value's Write calls.
class JsonValueWriter final : public ValueWriter {
  public:
    void WriteI32(std::int32_t value) override { Put(value); }
    void WriteU32(std::uint32_t value) override { Put(value); }
    void WriteBool(bool value) override { Put(value); }
    void WriteString(const char* value) override { Put(value != nullptr ? value : ""); }
    void WriteDouble(double value) override { Put(value); }
    void WriteI64(std::int64_t value) override { Put(value); }
    void BeginArray() override { stack.emplace_back(json::array()); }
    void EndArray() override {
        json done = std::move(stack.back());
        stack.pop_back();
        Put(std::move(done));
    }
    json Take() { return std::move(result); }

  private:
    void Put(json value) {
        if (stack.empty()) {
            result = std::move(value);
        } else {
            stack.back().push_back(std::move(value));
        }
    }

    std::vector<json> stack;
    json result;
};

// Reads one incoming JSON value; `member` names it in refusals.
class JsonValueReader final : public ValueReader {
  public:
    JsonValueReader(const json& valueIn, const std::string& memberIn) : value(valueIn), member(memberIn) {}

    std::uint32_t ReadU32() override {
        const json& v = Current();
        // Parsed JSON holds non-negative integers as unsigned; JSON built in code may hold them signed.
        const bool fits = v.is_number_unsigned()
                              ? v.get<std::uint64_t>() <= std::numeric_limits<std::uint32_t>::max()
                              : v.is_number_integer() && v.get<std::int64_t>() >= 0 &&
                                    v.get<std::int64_t>() <= std::numeric_limits<std::uint32_t>::max();
        if (!fits) {
            Refuse("an unsigned 32-bit integer");
        }
        return v.get<std::uint32_t>();
    }
    std::int32_t ReadI32() override {
        const json& v = Current();
        if (!v.is_number_integer()) {
            Refuse("a 32-bit integer");
        }
        const auto wide =
            v.is_number_unsigned()
                ? static_cast<std::int64_t>(std::min<std::uint64_t>(v.get<std::uint64_t>(), INT64_MAX))
                : v.get<std::int64_t>();
        if (wide < std::numeric_limits<std::int32_t>::min() ||
            wide > std::numeric_limits<std::int32_t>::max()) {
            Refuse("a 32-bit integer");
        }
        return static_cast<std::int32_t>(wide);
    }
    std::int64_t ReadI64() override {
        const json& v = Current();
        if (!v.is_number_integer() || (v.is_number_unsigned() && v.get<std::uint64_t>() > INT64_MAX)) {
            Refuse("a 64-bit integer");
        }
        return v.get<std::int64_t>();
    }
    bool ReadBool() override {
        const json& v = Current();
        if (!v.is_boolean()) {
            Refuse("a boolean");
        }
        return v.get<bool>();
    }
    std::string ReadString() override {
        const json& v = Current();
        if (!v.is_string()) {
            Refuse("a string");
        }
        return v.get<std::string>();
    }
    double ReadDouble() override {
        const json& v = Current();
        if (!v.is_number()) {
            Refuse("a number");
        }
        return v.get<double>();
    }
    void BeginArray() override {
        if (!value.is_array()) {
            Refuse("an array");
        }
        inArray = true;
        next = 0;
    }
    bool HasNext() override { return inArray && next < value.size(); }
    void EndArray() override { inArray = false; }

  private:
    const json& Current() {
        if (!inArray) {
            return value;
        }
        if (next >= value.size()) {
            Refuse("an array element");
        }
        return value[next++];
    }

    [[noreturn]] void Refuse(const char* kind) const {
        throw Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue,
                            "Ny::Properties::JsonSerializer::Deserialize", "Member \"%s\" must be %s.",
                            member.c_str(), kind);
    }

    const json& value;
    const std::string& member;
    bool inArray = false;
    size_t next = 0;
};

class DocumentWriter final : public INodeVisitorConst {
  public:
    json result;

    void Visit(const Structure& node) override {
        result = json::object();
        for (const auto& child : node.Children()) {
            result[child.key] = JsonSerializer::Serialize(*child.node);
        }
    }
    void Visit(const Internal::ValueBase& node) override {
        JsonValueWriter writer;
        node.Write(writer);
        result = writer.Take();
    }
    void Visit(const Internal::ArrayBase& node) override {
        result = json::array();
        for (size_t i = 0; i < node.Count(); ++i) {
            result.push_back(JsonSerializer::Serialize(node.ElementAt(i)));
        }
    }
    void Visit(const ReferenceArray& node) override {
        result = json::array();
        for (size_t i = 0; i < node.Count(); ++i) {
            result.push_back(node.At(i) != nullptr ? JsonSerializer::Serialize(*node.At(i)) : json());
        }
    }
};

class SchemaWriter final : public INodeVisitorConst {
  public:
    json result = json::object();

    void Visit(const Structure& node) override {
        result["type"] = "object";
        json properties = json::object();
        for (const auto& child : node.Children()) {
            properties[child.key] = JsonSerializer::SerializeSchema(*child.node);
        }
        result["properties"] = std::move(properties);
    }
    void Visit(const Internal::ValueBase&) override {}
    void Visit(const Internal::ArrayBase& node) override {
        // One schema per element: the item schemas the array lists are the elements' own.
        result["type"] = "array";
        json items = json::array();
        for (size_t i = 0; i < node.Count(); ++i) {
            items.push_back(JsonSerializer::SerializeSchema(node.ElementAt(i)));
        }
        result["items"] = std::move(items);
    }
    void Visit(const ReferenceArray&) override {}
};

// Where a member sits in the incoming JSON: its keys and array indexes from the top. Messages name it
// as "outer.list[2].name"; field refusals as "outer.list.2.name".
struct MemberPath {
    std::vector<std::string> keys;
    std::vector<bool> indexes;  // per key: an array index rather than a member name

    MemberPath With(std::string key, bool index) const {
        MemberPath inner = *this;
        inner.keys.push_back(std::move(key));
        inner.indexes.push_back(index);
        return inner;
    }
    bool Empty() const { return keys.empty(); }
    std::string Member() const {
        std::string text;
        for (size_t i = 0; i < keys.size(); ++i) {
            text += indexes[i] ? "[" + keys[i] + "]" : (i == 0 ? keys[i] : "." + keys[i]);
        }
        return text;
    }
    std::string Field() const {
        std::string text;
        for (size_t i = 0; i < keys.size(); ++i) {
            text += i == 0 ? keys[i] : "." + keys[i];
        }
        return text;
    }
};

// The refusals of the validating pass, in the order met.
struct Refusals {
    std::vector<std::pair<std::string, Ny::Exception>> found;  // field path, refusal
};

// The two passes of Deserialize: validate everything first (collecting every refusal), then read.
// Elements the read makes (beyond an array's current ones) were validated on a scratch element in the
// first pass; when read they are validated again, so that their values take the same checks (a
// read-only refusal among them) as those of existing elements.
class DocumentReader final : public INodeVisitor {
  public:
    DocumentReader(const json& incomingIn, MemberPath pathIn, Refusals* refusalsIn, bool validateToo = false)
        : incoming(incomingIn),
          path(std::move(pathIn)),
          refusals(refusalsIn),
          validateBeforeRead(validateToo) {}

    void Visit(Structure& node) override {
        if (!incoming.is_object()) {
            if (path.Empty()) {
                throw Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue,
                                    "Ny::Properties::JsonSerializer::Deserialize",
                                    "The values must be a JSON object.");
            }
            Refuse(Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue,
                                 "Ny::Properties::JsonSerializer::Deserialize",
                                 "Member \"%s\" must be an object.", path.Member().c_str()));
            return;
        }
        for (const auto& child : node.Children()) {
            const auto found = incoming.find(child.key);
            if (found == incoming.end() || child.node->WriteOnly()) {
                continue;
            }
            DocumentReader inner(*found, path.With(child.key, false), refusals, validateBeforeRead);
            child.node->Accept(inner);
        }
    }
    void Visit(Internal::ValueBase& node) override {
        const std::string member = path.Member();
        JsonValueReader reader(incoming, member);
        if (refusals == nullptr) {
            if (validateBeforeRead) {
                node.Validate(reader);
            }
            node.Read(reader);
            return;
        }
        try {
            node.Validate(reader);
        } catch (const Ny::Exception& e) {
            Refuse(e);
        }
    }
    void Visit(Internal::ArrayBase& node) override {
        if (!incoming.is_array()) {
            Refuse(Ny::Exception(__LINE__, __FILE__, Ny::Status::InvalidValue,
                                 "Ny::Properties::JsonSerializer::Deserialize",
                                 "Member \"%s\" must be an array.", path.Member().c_str()));
            return;
        }
        // Elements that do not exist yet are made when reading; the first pass checks them on a scratch
        // element each.
        const size_t existing = node.Count();
        if (refusals == nullptr) {
            node.Resize(incoming.size());
        }
        for (size_t i = 0; i < incoming.size(); ++i) {
            const bool made = i >= existing;
            DocumentReader inner(incoming[i], path.With(std::to_string(i), true), refusals,
                                 validateBeforeRead || (made && refusals == nullptr));
            if (made && refusals != nullptr) {
                node.MakeElement()->Accept(inner);
            } else if (i < node.Count()) {
                node.ElementAt(i).Accept(inner);
            }
        }
    }
    void Visit(ReferenceArray&) override {}

  private:
    // While validating, a refusal is noted and the walk goes on; while reading there are none (the
    // values were validated), so whatever is thrown then passes on at once.
    void Refuse(const Ny::Exception& refusal) {
        if (refusals == nullptr) {
            throw refusal;
        }
        refusals->found.emplace_back(path.Field(), refusal);
    }

    const json& incoming;
    MemberPath path;
    Refusals* refusals;  // null while reading
    bool validateBeforeRead;
};

void CollectUnknown(const Node& node, const json& incoming, const MemberPath& path,
                    std::vector<std::string>& unknown);

// Walks the incoming JSON beside the tree, noting members that name no node.
class UnknownMemberFinder final : public INodeVisitorConst {
  public:
    UnknownMemberFinder(const json& incomingIn, const MemberPath& pathIn, std::vector<std::string>& unknownIn)
        : incoming(incomingIn), path(pathIn), unknown(unknownIn) {}

    void Visit(const Structure& node) override {
        if (!incoming.is_object()) {
            return;  // a wrong kind is the validation's to report
        }
        for (const auto& [key, value] : incoming.items()) {
            const Node* child = node.Find(key);
            if (child == nullptr) {
                unknown.push_back(path.With(key, false).Field());
            } else {
                CollectUnknown(*child, value, path.With(key, false), unknown);
            }
        }
    }
    void Visit(const Internal::ValueBase&) override {}
    void Visit(const Internal::ArrayBase& node) override {
        if (!incoming.is_array()) {
            return;
        }
        std::unique_ptr<Structure> scratch;  // the members of an element that does not exist yet
        for (size_t i = 0; i < incoming.size(); ++i) {
            if (i >= node.Count() && !scratch) {
                scratch = node.MakeElement();
            }
            const Structure& element = i < node.Count() ? node.ElementAt(i) : *scratch;
            CollectUnknown(element, incoming[i], path.With(std::to_string(i), true), unknown);
        }
    }
    void Visit(const ReferenceArray&) override {}

  private:
    const json& incoming;
    const MemberPath& path;
    std::vector<std::string>& unknown;
};

void CollectUnknown(const Node& node, const json& incoming, const MemberPath& path,
                    std::vector<std::string>& unknown) {
    UnknownMemberFinder finder(incoming, path, unknown);
    node.Accept(finder);
}

}  // namespace

json JsonSerializer::Serialize(const Node& node) {
    DocumentWriter writer;
    node.Accept(writer);
    return std::move(writer.result);
}

json JsonSerializer::SerializeSchema(const Node& node) {
    SchemaWriter writer;
    node.Accept(writer);
    // What the node's kind wrote ("type", "properties", an array's "items") wins over schema children.
    for (const auto& entry : node.SchemaEntries()) {
        if (!writer.result.contains(entry.key)) {
            writer.result[entry.key] = Serialize(*entry.child);
        }
    }
    return std::move(writer.result);
}

void JsonSerializer::Deserialize(Node& node, const json& incoming) {
    Refusals refusals;
    DocumentReader validate(incoming, MemberPath(), &refusals);
    node.Accept(validate);
    if (!refusals.found.empty()) {
        Ny::Exception first = refusals.found.front().second;
        for (const auto& [field, refusal] : refusals.found) {
            first.AddField(field, refusal.Message().empty() ? refusal.what() : refusal.Message());
        }
        throw first;
    }
    DocumentReader read(incoming, MemberPath(), nullptr);
    node.Accept(read);
}

std::vector<std::string> JsonSerializer::UnknownMembers(const Node& node, const json& incoming) {
    std::vector<std::string> unknown;
    CollectUnknown(node, incoming, MemberPath(), unknown);
    return unknown;
}

}  // namespace Ny::Properties
