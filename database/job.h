// Jobs: serializable recipes for database elements.
//
// A job tag holds no data until somebody accesses it; then the database asks the job runner to
// execute the tag's job, and the element the job returns becomes the tag's data. Because it can
// be made again, a job result may be dropped under memory pressure.
//
// The runner is a set of hooks (Job_runner). This program installs the inert set: no job tag is
// ever made, executed or deleted, and the job classes exist so that stored jobs stay well-formed.
// qv_job_use_local_runner() installs a runner that executes jobs on the accessing thread.
#pragma once

#include <cstdint>

#include "database/db.h"
#include "database/element.h"
#include "serial/serializable.h"
#include "serial/serializer.h"

namespace QV::SCHED {

// What a job is executed with. The DBN job-attributes event fills it from the job tag's
// attribute record; the job may update `shared`.
struct Job_execution_context {
    bool shared;               // the result may be known to other hosts
    int32_t mode;              // 0 plain, 1 local only, 2 fragmented
    bool keep_current_job;     // true: elements made by the job do not get the job as parent
    uint32_t thread;           // runner's thread number, for the job's own use
};

// Base of every job. Ten flags and one word travel with the job; the third flag starts true,
// everything else false. The database copies flags three, five, four and eight (in that order)
// into the job tag's attribute record when the job is stored.
//
// The virtual order (destructor, get_class_id, serialize, deserialize, the three hooks of
// Serializable, get_references, execute_local, execute, copy, get_size) is fixed.
class Job : public SERIAL::Serializable {
public:
    static constexpr int FLAG_COUNT = 10;

    Job() = default;
    Job(const Job&) = default;
    Job& operator=(const Job&) = default;

    // Ten bools (eight, then two), then the word through the u32 primitive; 14 bytes in all.
    // Subclasses call this first and write their own payload after it.
    const void* serialize(SERIAL::Serializer* serializer) const override;
    void* deserialize(SERIAL::Deserializer* deserializer) override;

    // Tags this job depends on, written into `tags` (at most `capacity`); returns the count.
    virtual uint32_t get_references(Db_tag* tags, uint32_t capacity) const;
    // Runs the job on this host; forwards to execute.
    virtual DB::Element_base* execute_local(Job_execution_context* context);
    // Makes the result element (owned by the caller). Every concrete job overrides it; reaching
    // this one ends the process.
    virtual DB::Element_base* execute(Job_execution_context* context);
    // A new equal job, owned by the caller.
    virtual Job* copy() const = 0;
    // Bytes of the job object.
    virtual uint64_t get_size() const = 0;

    // Flags by position (1-based as the attribute record lists them).
    bool flag(int position) const { return flags_[position - 1]; }
    void set_flag(int position, bool value) { flags_[position - 1] = value; }
    // The four the database reads.
    bool shared() const { return flags_[2]; }          // third
    bool keep_result() const { return flags_[3]; }     // fourth
    bool local_only() const { return flags_[4]; }      // fifth
    bool fragmented() const { return flags_[7]; }      // eighth
    uint32_t word() const { return word_; }
    void set_word(uint32_t value) { word_ = value; }

private:
    bool flags_[FLAG_COUNT] = {false, false, true, false, false, false, false, false, false, false};
    uint32_t word_ = 0;
};

// T: the final class; ID its class id ("*XYZ"). Fixes get_class_id, copy (copy-constructs a T)
// and get_size (sizeof T).
template <class T, uint32_t ID, class Base = Job>
class Job_template : public Base {
public:
    static constexpr uint32_t CLASS_ID = ID;

    using Base::Base;

    uint32_t get_class_id() const override { return ID; }
    Job* copy() const override { return new T(static_cast<const T&>(*this)); }
    uint64_t get_size() const override { return sizeof(T); }
};

// Class ids of the job classes of the system (the classes outside QV::DB live in the rendering
// core, which this program does not contain).
constexpr uint32_t JOB_ID_DUMMY = SERIAL::qv_class_id("*DUJ");              // 0x2A44554A
constexpr uint32_t JOB_ID_ASSEMBLY = SERIAL::qv_class_id("*RAJ");           // 0x2A52414A
constexpr uint32_t JOB_ID_ASSEMBLY_LOADER = SERIAL::qv_class_id("*RLJ");    // 0x2A524C4A
constexpr uint32_t JOB_ID_RCB_BUMPVECTORS = SERIAL::qv_class_id("*BUV");    // 0x2A425556
constexpr uint32_t JOB_ID_RCB_MBOX = SERIAL::qv_class_id("*SPL");           // 0x2A53504C
constexpr uint32_t JOB_ID_RCB_RENDERDATA = SERIAL::qv_class_id("*RDA");     // 0x2A524441
constexpr uint32_t JOB_ID_SPLIT_OBJECT = SERIAL::qv_class_id("*RSP");       // 0x2A525350
constexpr uint32_t JOB_ID_SDS_TOPOLOGY = SERIAL::qv_class_id("*TOJ");       // 0x2A544F4A
static_assert(JOB_ID_DUMMY == 0x2A44554Au && JOB_ID_SDS_TOPOLOGY == 0x2A544F4Au);

// An abstract job class with no behaviour of its own.
class Fixed_job : public Job {};

// ---- Runner hooks ------------------------------------------------------------------------------

// The attribute record of a job tag: 32 bytes.
struct Job_attributes {
    Db_tag param_tag;          //  0: the Job_param element that holds the job
    bool shared;               //  4: job flag three
    bool local_only;           //  5: job flag five
    bool keep_result;          //  6: job flag four
    bool fragmented;           //  7: job flag eight
    uint8_t reserved[24];      //  8
};
static_assert(sizeof(Job_attributes) == 32);

// What the database and the transaction require of whoever runs jobs.
struct Job_runner {
    // Makes the job tag for a stored Job_param; returns it (0: none made).
    Db_tag (*create_tag)(int type, int module, const Job_attributes* attributes, uint32_t size,
                         Db_tag param_tag, const char* text);
    void (*announce)(Db_tag tag, int type);
    // Produces the tag's data; not 0 on success.
    int (*execute)(Db_tag tag);
    // Not 0 if the job tag may be deleted.
    int (*consent_delete)(Db_tag tag);
    // Not 0 if a network flush or delete must leave the tag alone.
    int (*keep_on_flush)(Db_tag tag);
    // Runs the listed job tags (dependencies) before the caller goes on.
    void (*schedule)(const Db_tag* tags, int count);
};

// The runner of this program: 0 for every tag, nothing announced or scheduled.
const Job_runner& qv_job_inert_runner();
// The runner that executes a job tag's job on the thread that accesses it.
const Job_runner& qv_job_local_runner();
// Installs a runner (all members must be set). qv_dbn_init installs the inert one.
void qv_job_set_runner(const Job_runner& runner);
void qv_job_use_local_runner();
const Job_runner& qv_job_runner();

// Calls through the installed runner.
Db_tag qv_job_create_tag(int type, int module, const Job_attributes* attributes, uint32_t size,
                         Db_tag param_tag, const char* text);
void qv_job_announce(Db_tag tag, int type);
int qv_job_execute(Db_tag tag);
int qv_job_consent_delete(Db_tag tag);
int qv_job_keep_on_flush(Db_tag tag);
void qv_job_schedule(const Db_tag* tags, int count);

}  // namespace QV::SCHED
