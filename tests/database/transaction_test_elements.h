// Elements for the transaction and element tests, and their fixture.
#pragma once

#include <gtest/gtest.h>

#include "database/element.h"
#include "database/transaction.h"
#include "tests/database/scene_test_support.h"

namespace transaction_test {

using QV::DB::Element;
using QV::DB::get_transaction;
using QV::DB::Transaction;
using QV::DB::qv_class_id;

// Counts its destructions, so tests see who deleted it and when.
class Counted : public Element<Counted, qv_class_id("=CNT")> {
public:
    static inline int destroyed = 0;
    int payload = 0;

    Counted() = default;
    explicit Counted(int value) : payload(value) {}
    Counted(const Counted&) = default;
    ~Counted() override { ++destroyed; }
    const void* serialize(QV::SERIAL::Serializer*) const override { return this + 1; }
    void* deserialize(QV::SERIAL::Deserializer*) override { return this + 1; }
};

// Reports the size its storage would have, as a map does.
class Sized : public Element<Sized, qv_class_id("=SZD")> {
public:
    uint64_t storage_bytes = 0;
    uint64_t get_size() const override { return storage_bytes; }
    const void* serialize(QV::SERIAL::Serializer*) const override { return this + 1; }
    void* deserialize(QV::SERIAL::Deserializer*) override { return this + 1; }
};

// The element is not the first base: its Element_base part lies behind another base.
struct Interface_first {
    virtual ~Interface_first() = default;
    virtual int answer() const { return 42; }
    double pad = 1.0;
};
class Two_bases : public Interface_first, public Element<Two_bases, qv_class_id("=TWO")> {
public:
    const void* serialize(QV::SERIAL::Serializer*) const override { return this + 1; }
    void* deserialize(QV::SERIAL::Deserializer*) override { return this + 1; }
};

// A fresh database per test, with the element handler in and the messages captured (SceneTest).
class TransactionTest : public SceneTest {
protected:
    void SetUp() override
    {
        SceneTest::SetUp();
        transaction_ = get_transaction();
        Counted::destroyed = 0;
    }

    Transaction* transaction_ = nullptr;
};

}  // namespace transaction_test
