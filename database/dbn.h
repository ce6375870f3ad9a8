// Module DBN (id 56): the database's job support classes and its per-thread job events.
//
// A stored job lives in two tags: a Job_param element (type 63, an ordinary tag) that holds the
// job object, and the job tag whose data is the job's result. The Job_param's lifetime follows
// the job tag: it is not on the creating thread's created-tags list.
#pragma once

#include <cstddef>
#include <cstdint>

#include "database/element.h"
#include "database/job.h"
#include "database/transaction.h"

namespace QV::DB {

// Placeholder result: an element that holds no data.
class Dummy_tag : public Element<Dummy_tag, SERIAL::qv_class_id("*DUT")> {
public:
    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;
};

// The job of Transaction::store_dummy: its result is a Dummy_tag. No payload on the wire.
class Dummy_job : public SCHED::Job_template<Dummy_job, SCHED::JOB_ID_DUMMY> {
public:
    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;
    Element_base* execute(SCHED::Job_execution_context* context) override;
};

// Lets a job itself be stored in the database. Owns its job (may be null). The payload is the job
// as a stored object (class id, references, payload); a null job is a class id of 0.
class Job_param : public Element<Job_param, SERIAL::qv_class_id("=JPA")> {
public:
    Job_param() = default;
    explicit Job_param(SCHED::Job* job) : job_(job) {}
    Job_param(const Job_param& other);
    Job_param& operator=(const Job_param& other);
    ~Job_param() override;

    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;

    SCHED::Job* job() const { return job_; }
    // Gives up the job without deleting it.
    SCHED::Job* release_job();

private:
    SCHED::Job* job_ = nullptr;
};

// A job whose work divides into fragments. Every operation but execute does nothing and gives
// nothing back here; the concrete classes live in the rendering core.
class Fragmented_job : public SCHED::Job {
public:
    uint32_t get_class_id() const override;
    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;
    void prepare() override;
    void serialize_references(SERIAL::Serializer* serializer) const override;
    void deserialize_references(SERIAL::Deserializer* deserializer) override;
    uint32_t get_references(Db_tag* tags, uint32_t capacity) const override;
    Element_base* execute_local(SCHED::Job_execution_context* context) override;
    Element_base* execute(SCHED::Job_execution_context* context) override = 0;
    SCHED::Job* copy() const override;
    uint64_t get_size() const override;
};

}  // namespace QV::DB

// ---- Job events -------------------------------------------------------------------------------
enum Dbn_event : int {
    DBN_EVENT_CONTEXT_END = 0,   // the thread's context ends: remove every tag it created
    DBN_EVENT_JOB_INFO = 1,      // text about the tag's job into `text`
    DBN_EVENT_JOB_ATTRIBUTES = 2,  // fill `context` from `attributes`
    DBN_EVENT_EXECUTE = 3,       // run the job of `tag` (`attributes` names its Job_param)
};

struct Dbn_event_data {
    const QV::SCHED::Job_attributes* attributes;  // the job tag's attribute record
    QV::SCHED::Job_execution_context* context;
    char* text;                                    // JOB_INFO: output buffer
    size_t text_size;
};

// The per-thread job event handler. Returns 1 on success, 0 when the event could not be served
// (no job behind the tag, or the job gave no result).
int qv_dbn_job_event(int event, Db_tag tag, Dbn_event_data* data);

// "Storing a job": wraps `job` (ownership passes) in a Job_param, stores it, and has the runner
// make the job tag; the job tag joins the thread's created tags and gets `name`. Returns the job
// tag, or 0 when the runner makes none (the Job_param is then removed again).
Db_tag qv_dbn_store_job(QV::DB::Transaction* transaction, QV::SCHED::Job* job, const char* name);

// Start of module DBN, after the database: registers Dummy_job, Dummy_tag and Job_param with the
// deserialization manager, the per-thread area (created tags and the event handler), the inert
// job runner, and the job support of Transaction. A second call does nothing.
void qv_dbn_init();
bool qv_dbn_started();
