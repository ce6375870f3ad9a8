// Job tags producing their result on first access, after their dependencies.
#include <vector>

#include "database/transaction.h"
#include "serial/deserialization_manager.h"
#include "tests/database/scene_test_support.h"
#include "tests/database/transaction_test_elements.h"

namespace {

using QV::DB::Element_base;
using QV::DB::get_transaction;
using QV::SCHED::Job_execution_context;
using QV::SCHED::Job_template;
using QV::SERIAL::qv_class_id;

// Makes a tracked element while it runs, then returns an element carrying its word.
class Building_job : public Job_template<Building_job, qv_class_id("*TBJ")> {
public:
    static inline std::vector<uint32_t> runs;    // words of the jobs run, in order
    static inline Db_tag made = 0;               // the element the last run made
    static inline int destroyed = 0;
    Db_tag depends_on = 0;

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
        return new transaction_test::Counted(int(word() * 10));
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
};

TEST_F(JobTest, JobTagRunsOnFirstAccessOnlyAfterItsDependenciesAndWhatItMadePinsIt)
{
    QV::SCHED::qv_job_use_local_runner();
    Db_tag first = 0;
    get_transaction()->store_job(&first, job_with_word(1), nullptr);
    Building_job* job = job_with_word(4);
    job->depends_on = first;
    Db_tag tag = 0;
    get_transaction()->store_job(&tag, job, "built");
    ASSERT_TRUE(qv_db_is_job(tag));
    EXPECT_TRUE(Building_job::runs.empty()) << "storing does not run the job";

    auto* result = static_cast<Element_base*>(qv_db_access(tag));
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->get_class_id(), transaction_test::Counted::CLASS_ID);
    EXPECT_EQ(static_cast<transaction_test::Counted*>(result)->payload, 40);
    qv_db_unpin(tag);

    // What the job made hangs on the job: pinning it pins the job result too.
    const Db_tag made = Building_job::made;
    ASSERT_NE(made, 0u);
    EXPECT_EQ(qv_db_peek(made)->parent, qv_db_peek(tag));
    const uint32_t before = my_pins(tag);
    qv_db_access(made);
    EXPECT_EQ(my_pins(tag), before + 1);
    qv_db_unpin(made);
    EXPECT_EQ(my_pins(tag), before);

    EXPECT_EQ(qv_db_access(tag), result);
    qv_db_unpin(tag);
    EXPECT_EQ(Building_job::runs, (std::vector<uint32_t>{1, 4}));

    // The local runner lets a job tag go, and its Job_param with it.
    const int destroyed = Building_job::destroyed;
    get_transaction()->remove(first);
    EXPECT_EQ(qv_db_peek(first)->state, DB_STATE_FREE);
    EXPECT_EQ(Building_job::destroyed, destroyed + 1);
}

TEST_F(JobTest, InertRunnerMakesNoJobTag)
{
    Db_tag tag = 0;
    EXPECT_EQ(get_transaction()->store_job(&tag, job_with_word(3), "never"), 0u);
    EXPECT_EQ(tag, 0u);
    EXPECT_EQ(Building_job::destroyed, 1) << "the orphaned job is not kept";
}

}  // namespace
