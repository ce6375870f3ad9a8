// Typed values of the options table, and the Options element that holds them by name.
//
// A Value answers the typed reads that make sense for it and refuses the rest (false, output
// untouched). Reads widen where no information is lost: an integer reads as a float, a float
// spreads over the components of a vector read, a vector reads its leading components.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "database/element.h"

namespace QV::SCENE {

// Kind numbers on the wire: what a serialized value starts with.
enum Value_kind : int32_t {
    VALUE_BOOL = 1,
    VALUE_INT = 2,
    VALUE_FLOAT = 3,
    VALUE_FLOAT2 = 4,
    VALUE_FLOAT3 = 5,
    VALUE_FLOAT4 = 6,
    VALUE_STRING = 7,
};

// The virtual order (destructor, the seven typed reads from float[4] down to bool, print,
// serialize, copy) is the class's contract with its users; keep additions behind it.
class Value {
public:
    virtual ~Value();
    virtual bool get(float (&value)[4]) const;
    virtual bool get(float (&value)[3]) const;
    virtual bool get(float (&value)[2]) const;
    virtual bool get(float& value) const;
    virtual bool get(int32_t& value) const;
    virtual bool get(std::string& value) const;
    virtual bool get(bool& value) const;
    // Appends the text form.
    virtual void print(std::ostream& out) const = 0;
    // Writes the kind number (i32), then the value.
    virtual void serialize(SERIAL::Serializer* serializer) const = 0;
    // A new equal value, owned by the caller.
    virtual Value* copy() const = 0;

    // Reads a value that serialize wrote; null (stream left where it failed) for an unknown kind.
    static Value* deserialize(SERIAL::Deserializer* deserializer);
};

class BoolValue : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    explicit BoolValue(bool value = false) : value_(value) {}
    bool get(int32_t& value) const override;
    bool get(bool& value) const override;
    void print(std::ostream& out) const override;   // "on" or "off"
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    bool value_;
};

class IntValue : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    explicit IntValue(int32_t value = 0) : value_(value) {}
    bool get(float& value) const override;
    bool get(int32_t& value) const override;
    bool get(bool& value) const override;           // true when not 0
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    int32_t value_;
};

class FloatValue : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    explicit FloatValue(float value = 0) : value_(value) {}
    bool get(float (&value)[4]) const override;
    bool get(float (&value)[3]) const override;
    bool get(float (&value)[2]) const override;
    bool get(float& value) const override;
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    float value_;
};

class Float2Value : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    Float2Value(float x = 0, float y = 0) : value_{x, y} {}
    bool get(float (&value)[2]) const override;
    bool get(float& value) const override;          // the first component
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    float value_[2];
};

class Float3Value : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    Float3Value(float x = 0, float y = 0, float z = 0) : value_{x, y, z} {}
    bool get(float (&value)[3]) const override;
    bool get(float (&value)[2]) const override;
    bool get(float& value) const override;
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    float value_[3];
};

class Float4Value : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    Float4Value(float x = 0, float y = 0, float z = 0, float w = 0) : value_{x, y, z, w} {}
    bool get(float (&value)[4]) const override;
    bool get(float (&value)[3]) const override;
    bool get(float (&value)[2]) const override;
    bool get(float& value) const override;
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    float value_[4];
};

class StringValue : public Value {
public:
    using Value::get;  // the refused reads stay callable on the subclass
    explicit StringValue(std::string value = {}) : value_(std::move(value)) {}
    bool get(std::string& value) const override;
    void print(std::ostream& out) const override;
    void serialize(SERIAL::Serializer* serializer) const override;
    Value* copy() const override;

private:
    std::string value_;
};

// A list of named values, stored in the database as class "opts". Owns its values. Names are
// unique: setting a name that exists replaces its value in place, so the list keeps the order in
// which names first appeared.
class Options : public DB::Element<Options, SERIAL::qv_class_id("opts")> {
public:
    Options() = default;
    Options(const Options& other);
    Options& operator=(const Options& other);
    ~Options() override;

    // Takes ownership of `value`.
    void set(const std::string& name, Value* value);
    // Null when the name is not set.
    const Value* find(const std::string& name) const;
    bool remove(const std::string& name);
    size_t count() const { return entries_.size(); }
    void clear();

    // One entry a line: name, " ", the value's text.
    void print(std::ostream& out) const;

    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;

private:
    struct Entry {
        std::string name;
        Value* value;
    };
    std::vector<Entry> entries_;
};

// Registers "opts" with the deserialization manager.
void options_register();

}  // namespace QV::SCENE
