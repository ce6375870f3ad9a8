#include "database/scene_value.h"

#include "serial/deserialization_manager.h"
#include "serial/serializer.h"

namespace QV::SCENE {

// ---- Value: every read refused unless a subclass answers it --------------------------------------

Value::~Value() = default;
bool Value::get(float (&)[4]) const { return false; }
bool Value::get(float (&)[3]) const { return false; }
bool Value::get(float (&)[2]) const { return false; }
bool Value::get(float&) const { return false; }
bool Value::get(int32_t&) const { return false; }
bool Value::get(std::string&) const { return false; }
bool Value::get(bool&) const { return false; }

Value* Value::deserialize(SERIAL::Deserializer* deserializer)
{
    int32_t kind = 0;
    deserializer->read(&kind);
    switch (kind) {
    case VALUE_BOOL: {
        bool value = false;
        deserializer->read(&value);
        return new BoolValue(value);
    }
    case VALUE_INT: {
        int32_t value = 0;
        deserializer->read(&value);
        return new IntValue(value);
    }
    case VALUE_FLOAT: {
        float value = 0;
        deserializer->read(&value);
        return new FloatValue(value);
    }
    case VALUE_FLOAT2: {
        float value[2] = {};
        deserializer->read(&value);
        return new Float2Value(value[0], value[1]);
    }
    case VALUE_FLOAT3: {
        float value[3] = {};
        deserializer->read(&value);
        return new Float3Value(value[0], value[1], value[2]);
    }
    case VALUE_FLOAT4: {
        float value[4] = {};
        deserializer->read(&value);
        return new Float4Value(value[0], value[1], value[2], value[3]);
    }
    case VALUE_STRING: {
        std::string value;
        deserializer->read(&value);
        return new StringValue(std::move(value));
    }
    default: return nullptr;
    }
}

// ---- BoolValue ---------------------------------------------------------------------------------

bool BoolValue::get(int32_t& value) const
{
    value = value_ ? 1 : 0;
    return true;
}
bool BoolValue::get(bool& value) const
{
    value = value_;
    return true;
}
void BoolValue::print(std::ostream& out) const { out << (value_ ? "on" : "off"); }
void BoolValue::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_BOOL));
    serializer->write(value_);
}
Value* BoolValue::copy() const { return new BoolValue(*this); }

// ---- IntValue ----------------------------------------------------------------------------------

bool IntValue::get(float& value) const
{
    value = float(value_);
    return true;
}
bool IntValue::get(int32_t& value) const
{
    value = value_;
    return true;
}
bool IntValue::get(bool& value) const
{
    value = value_ != 0;
    return true;
}
void IntValue::print(std::ostream& out) const { out << value_; }
void IntValue::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_INT));
    serializer->write(value_);
}
Value* IntValue::copy() const { return new IntValue(*this); }

// ---- FloatValue: one number spread over whatever is asked ----------------------------------------

bool FloatValue::get(float (&value)[4]) const
{
    value[0] = value[1] = value[2] = value[3] = value_;
    return true;
}
bool FloatValue::get(float (&value)[3]) const
{
    value[0] = value[1] = value[2] = value_;
    return true;
}
bool FloatValue::get(float (&value)[2]) const
{
    value[0] = value[1] = value_;
    return true;
}
bool FloatValue::get(float& value) const
{
    value = value_;
    return true;
}
void FloatValue::print(std::ostream& out) const { out << value_; }
void FloatValue::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_FLOAT));
    serializer->write(value_);
}
Value* FloatValue::copy() const { return new FloatValue(*this); }

// ---- Vectors: their leading components ---------------------------------------------------------

bool Float2Value::get(float (&value)[2]) const
{
    value[0] = value_[0];
    value[1] = value_[1];
    return true;
}
bool Float2Value::get(float& value) const
{
    value = value_[0];
    return true;
}
void Float2Value::print(std::ostream& out) const { out << value_[0] << ' ' << value_[1]; }
void Float2Value::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_FLOAT2));
    serializer->write(value_);
}
Value* Float2Value::copy() const { return new Float2Value(*this); }

bool Float3Value::get(float (&value)[3]) const
{
    for (int i = 0; i < 3; ++i)
        value[i] = value_[i];
    return true;
}
bool Float3Value::get(float (&value)[2]) const
{
    value[0] = value_[0];
    value[1] = value_[1];
    return true;
}
bool Float3Value::get(float& value) const
{
    value = value_[0];
    return true;
}
void Float3Value::print(std::ostream& out) const { out << value_[0] << ' ' << value_[1] << ' ' << value_[2]; }
void Float3Value::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_FLOAT3));
    serializer->write(value_);
}
Value* Float3Value::copy() const { return new Float3Value(*this); }

bool Float4Value::get(float (&value)[4]) const
{
    for (int i = 0; i < 4; ++i)
        value[i] = value_[i];
    return true;
}
bool Float4Value::get(float (&value)[3]) const
{
    for (int i = 0; i < 3; ++i)
        value[i] = value_[i];
    return true;
}
bool Float4Value::get(float (&value)[2]) const
{
    value[0] = value_[0];
    value[1] = value_[1];
    return true;
}
bool Float4Value::get(float& value) const
{
    value = value_[0];
    return true;
}
void Float4Value::print(std::ostream& out) const
{
    out << value_[0] << ' ' << value_[1] << ' ' << value_[2] << ' ' << value_[3];
}
void Float4Value::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_FLOAT4));
    serializer->write(value_);
}
Value* Float4Value::copy() const { return new Float4Value(*this); }

// ---- StringValue -------------------------------------------------------------------------------

bool StringValue::get(std::string& value) const
{
    value = value_;
    return true;
}
void StringValue::print(std::ostream& out) const { out << value_; }
void StringValue::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(int32_t(VALUE_STRING));
    serializer->write(value_);
}
Value* StringValue::copy() const { return new StringValue(*this); }

// ---- Options -----------------------------------------------------------------------------------

Options::Options(const Options& other) : Element(other)
{
    entries_.reserve(other.entries_.size());
    for (const Entry& entry : other.entries_)
        entries_.push_back({entry.name, entry.value->copy()});
}

Options& Options::operator=(const Options& other)
{
    if (this == &other)
        return *this;
    Element::operator=(other);
    clear();
    entries_.reserve(other.entries_.size());
    for (const Entry& entry : other.entries_)
        entries_.push_back({entry.name, entry.value->copy()});
    return *this;
}

Options::~Options() { clear(); }

void Options::clear()
{
    for (Entry& entry : entries_)
        delete entry.value;
    entries_.clear();
}

void Options::set(const std::string& name, Value* value)
{
    for (Entry& entry : entries_) {
        if (entry.name == name) {
            if (entry.value != value)
                delete entry.value;
            entry.value = value;
            return;
        }
    }
    entries_.push_back({name, value});
}

const Value* Options::find(const std::string& name) const
{
    for (const Entry& entry : entries_)
        if (entry.name == name)
            return entry.value;
    return nullptr;
}

bool Options::remove(const std::string& name)
{
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->name == name) {
            delete it->value;
            entries_.erase(it);
            return true;
        }
    }
    return false;
}

void Options::print(std::ostream& out) const
{
    for (const Entry& entry : entries_) {
        out << entry.name << ' ';
        entry.value->print(out);
        out << '\n';
    }
}

const void* Options::serialize(SERIAL::Serializer* serializer) const
{
    serializer->write(uint32_t(entries_.size()));
    for (const Entry& entry : entries_) {
        serializer->write(entry.name);
        entry.value->serialize(serializer);
    }
    return this + 1;
}

void* Options::deserialize(SERIAL::Deserializer* deserializer)
{
    clear();
    uint32_t count = 0;
    deserializer->read(&count);
    // A damaged count ends at the stream's end, not at an allocation of its size.
    for (uint32_t n = 0; n < count && deserializer->is_valid(); ++n) {
        std::string name;
        deserializer->read(&name);
        Value* value = Value::deserialize(deserializer);
        if (!value || !deserializer->is_valid()) {
            delete value;
            break;
        }
        set(name, value);
    }
    return this + 1;
}

void options_register()
{
    SERIAL::serial_manager()->register_class(Options::CLASS_ID, &DB::construct_element<Options>);
}

}  // namespace QV::SCENE
