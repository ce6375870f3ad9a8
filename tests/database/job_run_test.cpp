// Jobs: their stored form, the support classes, and job tags producing their result on access.
#include <memory>
#include <thread>
#include <vector>

#include "database/transaction.h"
#include "runtime/threads.h"
#include "serial/deserialization_manager.h"
#include "serial/media_queue.h"
#include "tests/database/scene_test_support.h"

namespace {

using QV::DB::Db_deserializer;
using QV::DB::Db_serializer;
using QV::DB::Dummy_job;
using QV::DB::Dummy_tag;
using QV::DB::Element;
using QV::DB::Element_base;
using QV::DB::Job_param;
using QV::DB::get_transaction;
using QV::SCHED::Job;
using QV::SCHED::Job_execution_context;
using QV::SCHED::Job_template;
using QV::SERIAL::qv_class_id;

// The element a test job returns.
class Result : public Element<Result, qv_class_id("=TRS")> {
public:
    uint32_t value = 0;
    const void* serialize(QV::SERIAL::Serializer* out) const override
    {
        out->write(value);
        return this + 1;
    }
    void* deserialize(QV::SERIAL::Deserializer* in) override
    {
        in->read(&value);
        return this + 1;
    }
};

// Makes a tracked element while it runs, then returns a Result carrying its word.
class Building_job : public Job_template<Building_job, qv_class_id("*TBJ")> {
public:
    static inline std::vector<uint32_t> runs;    // words of the jobs run, in order
    static inline Db_tag made = 0;               // the element the last run made
    static inline int destroyed = 0;
    Db_tag depends_on = 0;

    Building_job() = default;
    Building_job(const Building_job&) = default;
    ~Building_job() override { ++destroyed; }

    uint32_t get_references(Db_tag* tags, uint32_t capacity) const override
    {
        if (!depends_on || capacity == 0)
            return 0;
        tags[0] = depends_on;
        return 1;
    }

    Element_base* execute(Job_execution_context*) override
    {
        runs.push_back(word());
        qv_db_create(&made, SCENE_VECTOR, 12);
        qv_db_unpin(made);  // drop the creation pin; the job chain keeps its own accounting
        auto* result = new Result;
        result->value = word() * 10;
        return result;
    }
};

QV::SERIAL::Serializable* construct_building_job() { return new Building_job; }

class JobTest : public SceneTest {
protected:
    void SetUp() override
    {
        SceneTest::SetUp();
        Building_job::runs.clear();
        Building_job::made = 0;
        Building_job::destroyed = 0;
        QV::SERIAL::serial_manager()->register_class(Building_job::CLASS_ID, construct_building_job);
    }

    static Building_job* job_with_word(uint32_t word)
    {
        auto* job = new Building_job;
        job->set_word(word);
        return job;
    }

    static size_t stored_bytes(const QV::SERIAL::Serializable* object)
    {
        Db_serializer out;
        out.serialize(object);
        return out.queue().size();
    }

    static uint32_t pins_at(const Db_record* record)
    {
        const uint32_t* pins = thread_context()->db_pins;
        return pins ? pins[record->pidx] : 0;
    }
};

TEST_F(JobTest, JobTagProducesItsResultOnFirstAccessOnly)
{
    QV::SCHED::qv_job_use_local_runner();
    Db_tag tag = 0;
    get_transaction()->store_job(&tag, job_with_word(4), "built");
    ASSERT_TRUE(qv_db_is_job(tag));
    EXPECT_EQ(qv_db_peek(tag)->data, nullptr);
    EXPECT_TRUE(Building_job::runs.empty()) << "storing does not run the job";
    Db_tag named = 0;
    EXPECT_EQ(get_transaction()->name_to_tag(&named, "built"), tag);

    auto* result = static_cast<Element_base*>(qv_db_access(tag));
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->get_class_id(), Result::CLASS_ID);
    EXPECT_EQ(static_cast<Result*>(result)->value, 40u);
    qv_db_unpin(tag);

    EXPECT_EQ(qv_db_access(tag), result);
    qv_db_unpin(tag);
    EXPECT_EQ(Building_job::runs.size(), 1u);
    EXPECT_EQ(get_transaction()->get_class_id(tag), Result::CLASS_ID);
}

TEST_F(JobTest, ElementsMadeByAJobPinItsResult)
{
    QV::SCHED::qv_job_use_local_runner();
    Db_tag tag = 0;
    get_transaction()->store_job(&tag, job_with_word(1), nullptr);
    qv_db_access(tag);
    qv_db_unpin(tag);
    EXPECT_EQ(qv_db_current_job(), nullptr) << "the thread's current job is restored";

    const Db_tag made = Building_job::made;
    Db_record* job_record = qv_db_peek(tag);
    ASSERT_NE(made, 0u);
    EXPECT_EQ(qv_db_peek(made)->parent, job_record);

    const uint32_t before = pins_at(job_record);
    qv_db_access(made);
    EXPECT_EQ(pins_at(job_record), before + 1) << "pinning the element pins the job result";
    qv_db_unpin(made);
    EXPECT_EQ(pins_at(job_record), before);
}

TEST_F(JobTest, DependenciesRunBeforeTheJobThatNamesThem)
{
    QV::SCHED::qv_job_use_local_runner();
    Db_tag first = 0;
    get_transaction()->store_job(&first, job_with_word(1), nullptr);
    Building_job* second_job = job_with_word(2);
    second_job->depends_on = first;
    Db_tag second = 0;
    get_transaction()->store_job(&second, second_job, nullptr);

    qv_db_access(second);
    qv_db_unpin(second);
    EXPECT_EQ(Building_job::runs, (std::vector<uint32_t>{1, 2}));
    EXPECT_NE(qv_db_peek(first)->data, nullptr);

    // The local runner lets a job tag go, and its Job_param with it.
    const int destroyed = Building_job::destroyed;
    get_transaction()->remove(first);
    EXPECT_EQ(qv_db_peek(first)->state, DB_STATE_FREE);
    EXPECT_EQ(Building_job::destroyed, destroyed + 1);
}

TEST_F(JobTest, InertRunnerMakesNoJobTagAndKeepsThemAll)
{
    Db_tag tag = 0;
    EXPECT_EQ(get_transaction()->store_job(&tag, job_with_word(3), "never"), 0u);
    EXPECT_EQ(tag, 0u);
    EXPECT_EQ(Building_job::destroyed, 1) << "the orphaned job is not kept";
    Db_tag named = 1;
    EXPECT_EQ(get_transaction()->name_to_tag(&named, "never"), 0u);

    // A job tag made by other means cannot be deleted: the consent hook says 0.
    Db_tag job_tag = 0;
    qv_db_create_job_tag(&job_tag, DB_TYPE_SERIALIZABLE, MOD_DBN);
    qv_db_delete(job_tag);
    EXPECT_EQ(qv_db_peek(job_tag)->state, DB_STATE_NORMAL);
    EXPECT_DEATH(qv_db_access(job_tag), "N=41037 T=database job execution failed");
}

TEST_F(JobTest, StoreDummyMakesATagOrAJob)
{
    Db_tag plain = 0;
    get_transaction()->store_dummy(&plain, false);
    ASSERT_NE(plain, 0u);
    EXPECT_FALSE(qv_db_is_job(plain));
    EXPECT_EQ(get_transaction()->get_class_id(plain), Dummy_tag::CLASS_ID);

    QV::SCHED::qv_job_use_local_runner();
    Db_tag job = 0;
    get_transaction()->store_dummy(&job, true);
    ASSERT_TRUE(qv_db_is_job(job));
    auto* result = static_cast<Element_base*>(qv_db_access(job));
    qv_db_unpin(job);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->get_class_id(), Dummy_tag::CLASS_ID);
}

TEST_F(JobTest, SerializedJobIsTenFlagBytesAndOneWord)
{
    Building_job job;
    Db_serializer out;
    job.serialize(&out);
    ASSERT_EQ(out.queue().size(), 14u);
    uint8_t bytes[14];
    out.queue().copy_out(0, bytes, 14);
    const uint8_t defaults[10] = {0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes, defaults, 10), 0) << "only the third flag starts true";

    job.set_flag(1, true);
    job.set_flag(3, false);
    job.set_flag(10, true);
    job.set_word(0xA1B2C3D4);
    Db_serializer changed;
    job.serialize(&changed);
    EXPECT_EQ(changed.queue().size(), 14u);

    Db_deserializer in(&changed.queue());
    Building_job back;
    back.deserialize(&in);
    EXPECT_TRUE(back.flag(1));
    EXPECT_FALSE(back.shared());
    EXPECT_TRUE(back.flag(10));
    EXPECT_EQ(back.word(), 0xA1B2C3D4u);
}

TEST_F(JobTest, DummyJobTravelsAsItsClassIdAlone)
{
    Dummy_job job;
    EXPECT_EQ(stored_bytes(&job), 4u);
    EXPECT_EQ(job.get_class_id(), 0x2A44554Au);
    EXPECT_EQ(job.get_size(), 24u);

    Db_serializer out;
    out.serialize(&job);
    Db_deserializer in(&out.queue());
    QV::SERIAL::Serializable* back = in.deserialize();
    ASSERT_NE(back, nullptr);
    EXPECT_NE(dynamic_cast<Dummy_job*>(back), nullptr);
    delete back;
}

TEST_F(JobTest, JobParamCopiesAndCarriesItsJob)
{
    Job_param empty;
    std::unique_ptr<Element_base> empty_copy(empty.copy());
    EXPECT_EQ(static_cast<Job_param*>(empty_copy.get())->job(), nullptr);

    Job_param holder(job_with_word(9));
    std::unique_ptr<Element_base> copy(holder.copy());
    Job* copied_job = static_cast<Job_param*>(copy.get())->job();
    ASSERT_NE(copied_job, nullptr);
    EXPECT_NE(copied_job, holder.job());
    EXPECT_EQ(copied_job->word(), 9u);

    for (const Job_param* original : {&holder, &empty}) {
        Db_serializer out;
        out.serialize(original);
        Db_deserializer in(&out.queue());
        std::unique_ptr<QV::SERIAL::Serializable> back(in.deserialize());
        ASSERT_NE(back, nullptr);
        ASSERT_EQ(back->get_class_id(), Job_param::CLASS_ID);
        Job* job = static_cast<Job_param*>(back.get())->job();
        if (original->job()) {
            ASSERT_NE(job, nullptr);
            EXPECT_EQ(job->get_class_id(), Building_job::CLASS_ID);
            EXPECT_EQ(job->word(), 9u);
        } else {
            EXPECT_EQ(job, nullptr);
        }
    }
}

TEST_F(JobTest, JobEventsDescribeTheJobAndDeriveTheContext)
{
    Db_tag param = 0;
    get_transaction()->store(&param, new Job_param(new Dummy_job), nullptr);
    QV::SCHED::Job_attributes attributes{};
    attributes.param_tag = param;
    char text[64] = {};
    Dbn_event_data info{&attributes, nullptr, text, sizeof text};
    EXPECT_EQ(qv_dbn_job_event(DBN_EVENT_JOB_INFO, 0, &info), 1);
    EXPECT_STREQ(text, "serializable class id 0x2a44554a");

    Job_execution_context context{};
    Dbn_event_data data{&attributes, &context, nullptr, 0};
    attributes.shared = true;
    attributes.local_only = true;
    attributes.fragmented = true;
    qv_dbn_job_event(DBN_EVENT_JOB_ATTRIBUTES, 0, &data);
    EXPECT_TRUE(context.shared);
    EXPECT_EQ(context.mode, 1);
    attributes.local_only = false;
    qv_dbn_job_event(DBN_EVENT_JOB_ATTRIBUTES, 0, &data);
    EXPECT_EQ(context.mode, 2);
    attributes.fragmented = false;
    attributes.keep_result = true;
    attributes.shared = false;
    qv_dbn_job_event(DBN_EVENT_JOB_ATTRIBUTES, 0, &data);
    EXPECT_EQ(context.mode, 0);
    EXPECT_FALSE(context.shared);
}

TEST_F(JobTest, EndOfAThreadRemovesTheTagsItStored)
{
    Db_tag stored = 0;
    std::thread foreign([&] {
        ASSERT_GE(thread_init_current(), 0);
        get_transaction()->store(&stored, new Dummy_tag, "left behind");
        thread_end_current();
    });
    foreign.join();
    ASSERT_NE(stored, 0u);
    EXPECT_EQ(qv_db_peek(stored)->state, DB_STATE_FREE);
    Db_tag named = 1;
    EXPECT_EQ(get_transaction()->name_to_tag(&named, "left behind"), 0u);
}

}  // namespace
