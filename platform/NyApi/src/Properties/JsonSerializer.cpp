#include "NyApi/Properties/JsonSerializer.h"

#include <limits>
#include <string>
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
        throw Ny::Exception(__LINE__, __FILE__, -997, "Ny::Properties::JsonSerializer::Deserialize",
                            "Member \"%s\" must be %s.", member.c_str(), kind);
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

// The two passes of Deserialize: validate everything first, then read.
class DocumentReader final : public INodeVisitor {
  public:
    DocumentReader(const json& incomingIn, std::string memberIn, bool readingIn)
        : incoming(incomingIn), member(std::move(memberIn)), reading(readingIn) {}

    void Visit(Structure& node) override {
        if (!incoming.is_object()) {
            if (member.empty()) {
                throw Ny::Exception(__LINE__, __FILE__, -997, "Ny::Properties::JsonSerializer::Deserialize",
                                    "The values must be a JSON object.");
            }
            throw Ny::Exception(__LINE__, __FILE__, -997, "Ny::Properties::JsonSerializer::Deserialize",
                                "Member \"%s\" must be an object.", member.c_str());
        }
        for (const auto& child : node.Children()) {
            const auto found = incoming.find(child.key);
            if (found == incoming.end() || child.node->WriteOnly()) {
                continue;
            }
            DocumentReader inner(*found, member.empty() ? child.key : member + "." + child.key, reading);
            child.node->Accept(inner);
        }
    }
    void Visit(Internal::ValueBase& node) override {
        JsonValueReader reader(incoming, member);
        if (reading) {
            node.Read(reader);
        } else {
            node.Validate(reader);
        }
    }
    void Visit(Internal::ArrayBase& node) override {
        if (!incoming.is_array()) {
            throw Ny::Exception(__LINE__, __FILE__, -997, "Ny::Properties::JsonSerializer::Deserialize",
                                "Member \"%s\" must be an array.", member.c_str());
        }
        // Elements that do not exist yet are made when reading; the first pass checks the existing ones.
        if (reading) {
            node.Resize(incoming.size());
        }
        for (size_t i = 0; i < incoming.size() && i < node.Count(); ++i) {
            DocumentReader inner(incoming[i], member + "[" + std::to_string(i) + "]", reading);
            node.ElementAt(i).Accept(inner);
        }
    }
    void Visit(ReferenceArray&) override {}

  private:
    const json& incoming;
    std::string member;
    bool reading;
};

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
    DocumentReader validate(incoming, "", false);
    node.Accept(validate);
    DocumentReader read(incoming, "", true);
    node.Accept(read);
}

}  // namespace Ny::Properties
