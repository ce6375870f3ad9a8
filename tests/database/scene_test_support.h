// Fixture of the scene and job tests: a fresh database with SCENE and DBN up, and the messages
// captured (see DbTest).
#pragma once

#include <string>

#include "database/dbn.h"
#include "database/element.h"
#include "database/job.h"
#include "database/scene_types.h"
#include "tests/database/db_test_support.h"

class SceneTest : public DbTest {
protected:
    void SetUp() override
    {
        DbTest::SetUp();
        qv_dbn_init();
        qv_scene_init();
        // DbTest's tear-down clears the database hooks these modules installed at their start.
        QV::DB::element_install_db_handler();
        qv_db_set_type_name_hook(qv_scene_type_name);
        QV::SCHED::qv_job_set_runner(QV::SCHED::qv_job_inert_runner());
    }

    // A new scene record of `type`; the arguments size it as qv_scene_create does.
    static Db_tag scene_new(int type, int64_t first = 0, int64_t second = 0)
    {
        Db_tag tag = 0;
        qv_scene_create(&tag, type, first, second);
        return tag;
    }

    void TearDown() override
    {
        QV::SCHED::qv_job_set_runner(QV::SCHED::qv_job_inert_runner());
        // Close the database while elements are still deleted through their destructors: once
        // DbTest's tear-down clears that handler, the next start would free them as plain bytes.
        qv_db_exit();
        DbTest::TearDown();
    }
};
