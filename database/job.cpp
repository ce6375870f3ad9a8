#include "database/job.h"

#include <map>

#include "database/dbn.h"
#include "runtime/locks.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::SCHED {

// ---- Job ---------------------------------------------------------------------------------------

const void* Job::serialize(SERIAL::Serializer* serializer) const
{
    for (int i = 0; i < 8; ++i)
        serializer->write(flags_[i]);
    serializer->write(flags_[8]);
    serializer->write(flags_[9]);
    serializer->write(word_);
    return this + 1;
}

void* Job::deserialize(SERIAL::Deserializer* deserializer)
{
    for (bool& flag : flags_)
        deserializer->read(&flag);
    deserializer->read(&word_);
    return this + 1;
}

uint32_t Job::get_references(Db_tag* /*tags*/, uint32_t /*capacity*/) const { return 0; }

DB::Element_base* Job::execute_local(Job_execution_context* context) { return execute(context); }

DB::Element_base* Job::execute(Job_execution_context* /*context*/)
{
    Module_scope scope(MOD_DBN);
    msg_fatal("execute is missing in serializable class id 0x%x", get_class_id());
}

// ---- Runners -----------------------------------------------------------------------------------

namespace {

// The inert runner: what this program answers when the database asks for a job.
Db_tag inert_create_tag(int, int, const Job_attributes*, uint32_t, Db_tag, const char*) { return 0; }
void inert_announce(Db_tag, int) {}
int inert_zero(Db_tag) { return 0; }
void inert_schedule(const Db_tag*, int) {}

const Job_runner g_inert_runner{inert_create_tag, inert_announce, inert_zero,
                                inert_zero,       inert_zero,     inert_schedule};

// The local runner keeps the attribute record of each job tag it made. Lookups happen once per
// job execution, never on the access path of a produced result.
struct Local_jobs {
    Lock lock = nullptr;
    std::map<Db_tag, Job_attributes> attributes;
};

Local_jobs& local_jobs()
{
    static Local_jobs* jobs = [] {
        auto* made = new Local_jobs;
        lock_create(&made->lock);
        return made;
    }();
    return *jobs;
}

bool local_attributes(Db_tag tag, Job_attributes* out)
{
    Local_jobs& jobs = local_jobs();
    Lock_holder hold(jobs.lock);
    auto it = jobs.attributes.find(tag);
    if (it == jobs.attributes.end())
        return false;
    *out = it->second;
    return true;
}

Db_tag local_create_tag(int type, int module, const Job_attributes* attributes, uint32_t /*size*/,
                        Db_tag param_tag, const char* /*text*/)
{
    Db_tag tag = 0;
    qv_db_create_job_tag(&tag, type, module);
    Job_attributes record = *attributes;
    record.param_tag = param_tag;
    Local_jobs& jobs = local_jobs();
    Lock_holder hold(jobs.lock);
    jobs.attributes[tag] = record;
    return tag;
}

int local_execute(Db_tag tag)
{
    Job_attributes attributes;
    if (!local_attributes(tag, &attributes))
        return 0;
    Job_execution_context context{};
    Dbn_event_data data{&attributes, &context, nullptr, 0};
    qv_dbn_job_event(DBN_EVENT_JOB_ATTRIBUTES, tag, &data);
    return qv_dbn_job_event(DBN_EVENT_EXECUTE, tag, &data);
}

// The job tag goes, and its Job_param with it.
int local_consent_delete(Db_tag tag)
{
    Db_tag param_tag = 0;
    {
        Local_jobs& jobs = local_jobs();
        Lock_holder hold(jobs.lock);
        auto it = jobs.attributes.find(tag);
        if (it != jobs.attributes.end()) {
            param_tag = it->second.param_tag;
            jobs.attributes.erase(it);
        }
    }
    if (param_tag)
        DB::get_transaction()->remove(param_tag);
    return 1;
}

// Dependencies run now, on this thread: an access of a job tag without data executes it.
void local_schedule(const Db_tag* tags, int count)
{
    for (int i = 0; i < count; ++i) {
        if (!qv_db_is_job(tags[i]))
            continue;
        const Db_record* record = qv_db_peek(tags[i]);
        if (record && record->data)
            continue;
        qv_db_access(tags[i]);
        qv_db_unpin(tags[i]);
    }
}

const Job_runner g_local_runner{local_create_tag, inert_announce,       local_execute,
                                local_consent_delete, inert_zero, local_schedule};

Job_runner g_runner = g_inert_runner;

}  // namespace

const Job_runner& qv_job_inert_runner() { return g_inert_runner; }
const Job_runner& qv_job_local_runner() { return g_local_runner; }
const Job_runner& qv_job_runner() { return g_runner; }

void qv_job_set_runner(const Job_runner& runner)
{
    g_runner = runner;
    // The database always asks through these three; the runner behind them may change.
    Db_job_hooks hooks{};
    hooks.execute = qv_job_execute;
    hooks.consent_delete = qv_job_consent_delete;
    hooks.keep_on_flush = qv_job_keep_on_flush;
    qv_db_set_job_hooks(hooks);
}

void qv_job_use_local_runner() { qv_job_set_runner(g_local_runner); }

Db_tag qv_job_create_tag(int type, int module, const Job_attributes* attributes, uint32_t size,
                         Db_tag param_tag, const char* text)
{
    return g_runner.create_tag(type, module, attributes, size, param_tag, text);
}
void qv_job_announce(Db_tag tag, int type) { g_runner.announce(tag, type); }
int qv_job_execute(Db_tag tag) { return g_runner.execute(tag); }
int qv_job_consent_delete(Db_tag tag) { return g_runner.consent_delete(tag); }
int qv_job_keep_on_flush(Db_tag tag) { return g_runner.keep_on_flush(tag); }
void qv_job_schedule(const Db_tag* tags, int count) { g_runner.schedule(tags, count); }

}  // namespace QV::SCHED
