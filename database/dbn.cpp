#include "database/dbn.h"

#include <cstdio>

#include "database/transaction_names.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "serial/deserialization_manager.h"

namespace QV::DB {

// ---- Dummy_tag, Dummy_job ----------------------------------------------------------------------

const void* Dummy_tag::serialize(SERIAL::Serializer* /*serializer*/) const { return this + 1; }
void* Dummy_tag::deserialize(SERIAL::Deserializer* /*deserializer*/) { return this + 1; }

const void* Dummy_job::serialize(SERIAL::Serializer* /*serializer*/) const { return this + 1; }
void* Dummy_job::deserialize(SERIAL::Deserializer* /*deserializer*/) { return this + 1; }
Element_base* Dummy_job::execute(SCHED::Job_execution_context* /*context*/) { return new Dummy_tag; }

static_assert(sizeof(Dummy_job) == 24, "a dummy job is the bare job: vtable, ten flags, one word");

// ---- Job_param ---------------------------------------------------------------------------------

Job_param::Job_param(const Job_param& other) : Element(other), job_(other.job_ ? other.job_->copy() : nullptr) {}

Job_param& Job_param::operator=(const Job_param& other)
{
    if (this == &other)
        return *this;
    Element::operator=(other);
    delete job_;
    job_ = other.job_ ? other.job_->copy() : nullptr;
    return *this;
}

Job_param::~Job_param() { delete job_; }

SCHED::Job* Job_param::release_job()
{
    SCHED::Job* job = job_;
    job_ = nullptr;
    return job;
}

const void* Job_param::serialize(SERIAL::Serializer* serializer) const
{
    if (job_)
        serializer->serialize(job_);
    else
        serializer->write(int32_t(0));
    return this + 1;
}

void* Job_param::deserialize(SERIAL::Deserializer* deserializer)
{
    delete job_;
    job_ = nullptr;
    // The stored-object framing read by hand, so that a class id of 0 reads as "no job".
    int32_t class_id = 0;
    deserializer->read(&class_id);
    if (class_id == 0 || !deserializer->manager() || !deserializer->is_valid())
        return this + 1;
    SERIAL::Serializable* object = deserializer->manager()->construct(uint32_t(class_id));
    if (!object) {
        Module_scope scope(MOD_DBN);
        msg_error("cannot read job: unknown serializable class id 0x%x", uint32_t(class_id));
        return this + 1;
    }
    object->deserialize_references(deserializer);
    object->deserialize(deserializer);
    job_ = dynamic_cast<SCHED::Job*>(object);
    if (!job_)
        delete object;
    return this + 1;
}

// ---- Fragmented_job ----------------------------------------------------------------------------

uint32_t Fragmented_job::get_class_id() const { return 0; }
const void* Fragmented_job::serialize(SERIAL::Serializer* /*serializer*/) const { return nullptr; }
void* Fragmented_job::deserialize(SERIAL::Deserializer* /*deserializer*/) { return nullptr; }
void Fragmented_job::prepare() {}
void Fragmented_job::serialize_references(SERIAL::Serializer* /*serializer*/) const {}
void Fragmented_job::deserialize_references(SERIAL::Deserializer* /*deserializer*/) {}
uint32_t Fragmented_job::get_references(Db_tag* /*tags*/, uint32_t /*capacity*/) const { return 0; }
Element_base* Fragmented_job::execute_local(SCHED::Job_execution_context* /*context*/) { return nullptr; }
SCHED::Job* Fragmented_job::copy() const { return nullptr; }
uint64_t Fragmented_job::get_size() const { return 0; }

}  // namespace QV::DB

using QV::DB::Access_handle;
using QV::DB::Job_param;

namespace {

// Module DBN's per-thread area: the created-tags list first (Transaction reads it there), then
// the job event handler of the thread.
struct Dbn_context {
    QV::DB::Created_tags created;
    int (*handler)(int event, Db_tag tag, Dbn_event_data* data);
};
static_assert(sizeof(Dbn_context) == 24);
static_assert(offsetof(Dbn_context, created) == 0);

void dbn_context_init(void* area) { static_cast<Dbn_context*>(area)->handler = qv_dbn_job_event; }

void dbn_context_exit(void* area)
{
    auto* context = static_cast<Dbn_context*>(area);
    if (context->handler)
        context->handler(DBN_EVENT_CONTEXT_END, 0, nullptr);
    QV::DB::created_tags_free(&context->created);
}

QV::DB::Element_base* make_dummy_tag() { return new QV::DB::Dummy_tag; }
QV::SCHED::Job* make_dummy_job() { return new QV::DB::Dummy_job; }
QV::SERIAL::Serializable* construct_dummy_job() { return new QV::DB::Dummy_job; }

bool g_started = false;

// Step 1 of both job events that need the job: the Job_param behind the tag's attribute record.
QV::SCHED::Job* bind_job(Access_handle& handle, const Dbn_event_data* data)
{
    if (!data || !data->attributes || !data->attributes->param_tag)
        return nullptr;
    auto* param = static_cast<Job_param*>(handle.bind(data->attributes->param_tag, Job_param::CLASS_ID));
    return param ? param->job() : nullptr;
}

int execute_job(Db_tag tag, Dbn_event_data* data)
{
    Access_handle handle;
    QV::SCHED::Job* job = bind_job(handle, data);
    if (!job)
        return 0;
    QV::SCHED::Job_execution_context local_context{};
    QV::SCHED::Job_execution_context* context = data->context ? data->context : &local_context;

    // Dependencies first.
    constexpr uint32_t REFERENCE_CAPACITY = 64;
    Db_tag references[REFERENCE_CAPACITY] = {};
    const uint32_t count = job->get_references(references, REFERENCE_CAPACITY);
    if (count != 0)
        QV::SCHED::qv_job_schedule(references, int(count < REFERENCE_CAPACITY ? count : REFERENCE_CAPACITY));

    // Elements the job makes hang below the job's record, so pinning them pins the result.
    Db_record* previous = nullptr;
    const bool set_current = !context->keep_current_job;
    if (set_current)
        previous = qv_db_set_current_job(tag);
    QV::DB::Element_base* result = job->execute(context);
    if (set_current)
        qv_db_restore_current_job(previous);

    if (job->shared() != context->shared)
        context->shared = job->shared();
    if (!result)
        return 0;
    QV::DB::get_transaction()->store_over(tag, result, nullptr);
    return 1;
}

}  // namespace

int qv_dbn_job_event(int event, Db_tag tag, Dbn_event_data* data)
{
    Module_scope scope(MOD_DBN);
    switch (event) {
    case DBN_EVENT_CONTEXT_END:
        QV::DB::created_tags_remove_all();
        return 1;
    case DBN_EVENT_JOB_INFO: {
        Access_handle handle;
        QV::SCHED::Job* job = bind_job(handle, data);
        if (!job || !data->text || data->text_size == 0)
            return 0;
        std::snprintf(data->text, data->text_size, "serializable class id 0x%x", job->get_class_id());
        return 1;
    }
    case DBN_EVENT_JOB_ATTRIBUTES: {
        if (!data || !data->attributes || !data->context)
            return 0;
        const QV::SCHED::Job_attributes& attributes = *data->attributes;
        data->context->shared = attributes.shared;
        data->context->mode = attributes.local_only ? 1 : attributes.fragmented ? 2 : 0;
        return 1;
    }
    case DBN_EVENT_EXECUTE: return execute_job(tag, data);
    default: return 0;
    }
}

Db_tag qv_dbn_store_job(QV::DB::Transaction* transaction, QV::SCHED::Job* job, const char* name)
{
    Module_scope scope(MOD_DBN);
    // 1. The attribute record, with the four flags the database keeps.
    QV::SCHED::Job_attributes attributes{};
    attributes.shared = job->shared();
    attributes.local_only = job->local_only();
    attributes.keep_result = job->keep_result();
    attributes.fragmented = job->fragmented();

    // 2, 3. The Job_param is stored, and its lifetime follows the job tag from here on.
    Db_tag param_tag = 0;
    transaction->store(&param_tag, new Job_param(job), nullptr);
    attributes.param_tag = param_tag;
    QV::DB::created_tags_take_last();

    // 4. The job tag.
    const Db_tag job_tag = QV::SCHED::qv_job_create_tag(DB_TYPE_SERIALIZABLE, MOD_DBN, &attributes,
                                                        sizeof attributes, param_tag, name);
    if (!job_tag) {
        // No runner to make it: nothing would ever reach the Job_param again.
        transaction->remove(param_tag);
        return 0;
    }
    QV::DB::created_tags_append(job_tag);
    QV::DB::tag_names_register(job_tag, name);
    return job_tag;
}

bool qv_dbn_started() { return g_started; }

void qv_dbn_init()
{
    Module_scope scope(MOD_DBN);
    if (g_started)
        return;
    QV::SERIAL::Deserialization_manager* manager = QV::SERIAL::serial_manager();
    manager->register_class(Job_param::CLASS_ID, &QV::DB::construct_element<Job_param>);
    manager->register_class(QV::DB::Dummy_tag::CLASS_ID, &QV::DB::construct_element<QV::DB::Dummy_tag>);
    manager->register_class(QV::DB::Dummy_job::CLASS_ID, &construct_dummy_job);
    mod_register_context_area(MOD_DBN, dbn_context_init, dbn_context_exit, sizeof(Dbn_context));
    QV::SCHED::qv_job_set_runner(QV::SCHED::qv_job_inert_runner());

    QV::DB::Transaction_job_support support{};
    support.make_dummy_tag = make_dummy_tag;
    support.make_dummy_job = make_dummy_job;
    support.store_job = qv_dbn_store_job;
    support.announce = QV::SCHED::qv_job_announce;
    support.schedule = QV::SCHED::qv_job_schedule;
    QV::DB::transaction_set_job_support(support);
    g_started = true;
}
