// The value side of the property model: the reader and writer interfaces through which the serializer
// exchanges typed values with JSON, and `Internal::ValueBase`, the base of every typed value.
#pragma once

#include <cstdint>
#include <string>

#include "NyApi/Properties/Node.h"

namespace Ny::Properties {

// Hands incoming values to a value's Read and Validate. Taking a scalar twice gives the same value;
// each BeginArray walks the array from its start. A value of the wrong JSON kind throws Ny::Exception
// -997 naming the member and the expected kind.
class ValueReader {
  public:
    virtual ~ValueReader() = default;
    virtual std::uint32_t ReadU32() = 0;
    virtual std::int32_t ReadI32() = 0;
    virtual bool ReadBool() = 0;
    virtual std::string ReadString() = 0;
    virtual void BeginArray() = 0;
    virtual bool HasNext() = 0;
    virtual void EndArray() = 0;
    virtual double ReadDouble() = 0;
    virtual std::int64_t ReadI64() = 0;
};

// Receives the values a value's Write gives out.
class ValueWriter {
  public:
    virtual ~ValueWriter() = default;
    virtual void WriteI32(std::int32_t value) = 0;
    virtual void WriteU32(std::uint32_t value) = 0;
    virtual void WriteBool(bool value) = 0;
    virtual void WriteString(const char* value) = 0;
    virtual void BeginArray() = 0;
    virtual void EndArray() = 0;
    virtual void WriteDouble(double value) = 0;
    virtual void WriteI64(std::int64_t value) = 0;
};

class IValueIo {
  public:
    virtual ~IValueIo() = default;
    // Takes the incoming value and stores it.
    virtual void Read(ValueReader& reader) = 0;
    // Gives out the stored value.
    virtual void Write(ValueWriter& writer) const = 0;
    // Takes the incoming value and checks it without storing it; throws when it is refused.
    virtual void Validate(ValueReader& reader) = 0;
};

namespace Internal {

class ValueBase : public Node, public IValueIo {
  public:
    ValueBase() = default;
    ~ValueBase() override = default;
    void Accept(INodeVisitorConst& visitor) const override;
    void Accept(INodeVisitor& visitor) override;
};

}  // namespace Internal

}  // namespace Ny::Properties
