// Reports: dump rows, the two summaries with their listing thresholds.
#include <cstdlib>

#include "tests/database/db_test_support.h"

namespace {

using DbReportTest = DbTest;

const char* name_types(int type) { return type == 14 ? "polygon" : type == 15 ? "index" : nullptr; }
const char* name_tags(Db_tag tag) { return tag == 0x400 ? "probe" : nullptr; }

std::vector<std::string> info_lines() { return Msg_collect::texts(MSG_INFO); }

TEST_F(DbReportTest, DumpRowsFollowTheirFormat)
{
    qv_db_set_type_name_hook(name_types);
    qv_db_set_tag_name_hook(name_tags);
    Db_type_handler serial{};
    serial.class_id = [](const void*) { return 0x3D4D4150u; };
    qv_db_set_type_handler(DB_TYPE_SERIALIZABLE, serial);
    Db_tag polygon = 0, map = 0;
    {
        Module_scope scope(MOD_MAIN);
        qv_db_create(&polygon, 14, 16);
        qv_db_create(&map, DB_TYPE_SERIALIZABLE, 8);
    }
    qv_db_mark_shared(map);
    db_messages().clear();
    qv_db_dump(0);
    std::vector<std::string> lines = info_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0],
              "host  mod        tag                addr   ctrans    size pidx fj v priv refs    type          qv name");
    EXPECT_TRUE(lines[1].starts_with("   0  MAIN  00000400  ") &&
                lines[1].ends_with("       16    0 -- 1    0   14=polygon     probe")) << lines[1];
    EXPECT_NE(lines[2].find(" F- 1    0   63==MAP        "), std::string::npos) << lines[2];
    qv_db_unpin(polygon);
}

TEST_F(DbReportTest, SummaryListsByModuleAndTypeWithTheirThresholds)
{
    qv_db_set_type_name_hook(name_types);
    Db_tag polygon = 0, index = 0, job = 0;
    {
        Module_scope scope(MOD_MAIN);
        qv_db_create(&polygon, 14, 2u << 20);
    }
    {
        // Exactly one unit: listed by module (at or above), not by type (above).
        Module_scope scope(MOD_RCFG);
        qv_db_create(&index, 15, 1u << 20);
    }
    qv_db_create_job_tag(&job, 63, MOD_DBN);
    db_messages().clear();
    qv_db_summary();
    std::vector<std::string> expected{
        "database elements by module:",
        "  jobs MB    #jobs     MB #nonjobs   module",
        "        0        0      2        1   MAIN",
        "        0        0      1        1   RCFG",
        " ",
        "database elements by type:",
        "  jobs MB    #jobs     MB #nonjobs   type",
        "        0        0      2        1   14 polygon",
        "        0        1      1        1   other",
        "        0        1      3        2   total",
    };
    EXPECT_EQ(info_lines(), expected);
    qv_db_unpin(polygon);
    qv_db_unpin(index);
}

}  // namespace
