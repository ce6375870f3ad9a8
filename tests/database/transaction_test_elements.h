// Elements for the transaction and element tests, and the database start they share.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "database/db.h"
#include "database/element.h"
#include "database/transaction.h"
#include "runtime/msg.h"
#include "tests/test_support.h"

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
    std::string label;

    Counted() = default;
    explicit Counted(int value) : payload(value) {}
    Counted(const Counted&) = default;
    ~Counted() override { ++destroyed; }

    const void* serialize(QV::SERIAL::Serializer* out) const override
    {
        out->write(int32_t(payload));
        out->write(label);
        return this + 1;
    }
    void* deserialize(QV::SERIAL::Deserializer* in) override
    {
        int32_t value = 0;
        in->read(&value);
        payload = value;
        in->read(&label);
        return this + 1;
    }
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

// The host layer is not started in the tests: this process is made the master. Other suites
// in the binary may have put their own type-63 handler in; ours goes back in each time.
inline void start_database()
{
    qv_test_init();
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    if (!qv_db_started())
        qv_db_init();
    QV::DB::get_transaction();
    QV::DB::element_install_db_handler();
}

class TransactionTest : public testing::Test {
protected:
    void SetUp() override
    {
        start_database();
        transaction_ = get_transaction();
        Counted::destroyed = 0;
    }

    Transaction* transaction_ = nullptr;
};

}  // namespace transaction_test
