// The session table, its kernel rules and the activate and deactivate
// handlers, against atsw-sim and a sysfs directory under the test's root.
#include "sessions/activate_handlers.h"
#include "sessions/session_table.h"
#include "tests/embms/modem_fixture.h"

const char *const S1 = "0000010F1001", *const S2 = "0000020F2002", *const S3 = "0000030F3003";
constexpr uint32_t GROUP = 0xEF010203, CLIENT = 0xC0A8010A,
                   OTHER = 0xC0A8010B;  // 239.1.2.3, .10, .11
const std::string OK = "\r\nOK\r\n";

using Sessions = ModemFixture;

// Nine records at most, no two alike; a record removed takes its kernel
// rule with it and the records after it move down.
TEST_F(Sessions, TheTableHoldsNineDistinctRecordsAndClosesItsGaps) {
  for (int i = 0; i < ZOR_DB_MAX_ENTRIES; ++i)
    EXPECT_EQ(zor_db_insert_entry(S1, GROUP, CLIENT, 6000 + i, 1), 0);
  EXPECT_EQ(zor_db_insert_entry(S2, GROUP, CLIENT, 6000, 1), -1);
  zor_db_num_entries = 0;
  EXPECT_EQ(zor_db_remove_entry_by_index(0), -1);  // empty
  struct Row {
    const char* tmgi;
    uint32_t mc, uc;
    int32_t port, area, result;
  } rows[] = {{S1, GROUP, CLIENT, 5000, 1, 0}, {S1, GROUP, CLIENT, 5000, 1, -1},
              {S2, GROUP, CLIENT, 5000, 1, 0}, {S1, GROUP, CLIENT, 5001, 1, 0},
              {S1, GROUP, OTHER, 5000, 1, 0},  {S1, GROUP + 1, CLIENT, 5000, 1, 0},
              {S1, GROUP, CLIENT, 5000, 2, 0}};
  for (const Row& r : rows)
    EXPECT_EQ(zor_db_insert_entry(r.tmgi, r.mc, r.uc, r.port, r.area), r.result) << r.port;
  EXPECT_EQ(rule("ue_fw_mcast_encaps_set"), "239.1.2.3 0 192.168.1.10 5000\n");
  EXPECT_TRUE(zor_db_remove_entry_by_index(6) == -1 && zor_db_get_entry_by_index(6) == nullptr);
  EXPECT_EQ(zor_db_remove_entry_by_index(2), 0);
  EXPECT_TRUE(zor_db_num_entries == 5 && zor_db[2].uc_addr == OTHER && zor_db[4].areaid == 2);
  EXPECT_EQ(rule("ue_fw_mcast_encaps_del"), "239.1.2.3 0 192.168.1.10 5001\n");
  EXPECT_EQ(zt::count_of(log(), "1 > " + root_.path() +
                                    "/sys/devices/virtual/net/lte0/ue_fw_mcast_encaps_del\n"),
            1u);
}

std::string mbms(std::string verb, int area, const char* tmgi) {
  return "AT%MBMSCMD=\"" + verb + "\"," + std::to_string(area) + ",\"" + tmgi + "\"\n\r\n";
}

// The modem hears of a session once for all its receivers: activated for
// each new receiver, deactivated when the last one leaves.
TEST_F(Sessions, TheModemHearsOfASessionOnceForAllItsReceivers) {
  const std::string relayed = OK + "\r\n";  // the modem's OK passed on, then the link's line end
  struct Row {
    uint32_t client;
    int verb;
    const char* tmgi;
    int area;
    std::string modem, answer;
  } rows[] = {{CLIENT, 1, S1, 1, mbms("ACTIVATE", 1, S1), relayed},
              {CLIENT, 1, S1, 1, "", OK},  // already active for this client
              {OTHER, 1, S1, 1, mbms("ACTIVATE", 1, S1), relayed},
              {CLIENT, 0, S1, 1, "", OK},  // the other client still receives it
              {OTHER, 0, S1, 1, mbms("DEACTIVATE", 1, S1), relayed + OK},
              {OTHER, 0, S1, 1, "", OK},                  // not in the table
              {CLIENT, -1, "", 0, "AT\n", relayed + OK},  // -1: deactivate all
              {OTHER, 1, S3, 1, mbms("ACTIVATE", 1, S3), relayed},
              {CLIENT, 1, S1, 1, mbms("ACTIVATE", 1, S1), relayed},
              {CLIENT, 1, S2, 7, mbms("ACTIVATE", 7, S2), relayed},
              {CLIENT, 1, S3, 1, mbms("ACTIVATE", 1, S3), relayed},
              // S2 moves into S1's place and is found in the next pass; S3 stays with
              // the other client. The modem's replies stay with the daemon.
              {CLIENT, -1, "", 0, "AT\n" + mbms("DEACTIVATE", 1, S1) + mbms("DEACTIVATE", 7, S2),
               relayed + OK}};
  size_t seen = 0;
  for (const Row& row : rows) {
    at_cmd_q_entry[at_cmd_q_entry_rd_index] =
        AtQEntry{row.client, 40000, CHILD_MID, 9, CHILD_UCAST_PORT, 0, "AT"};
    if (row.verb < 0)
      zorSrv_handleDeactivateAll();
    else
      zorSrv_handleActivateDeactivate(row.verb, row.area, row.tmgi, GROUP);
    std::string modem = modem_bytes();
    EXPECT_EQ(modem.substr(seen) + " | " + client_bytes(), row.modem + " | " + row.answer)
        << row.client << " " << row.verb << " " << row.tmgi;
    seen = modem.size();
  }
  EXPECT_TRUE(zor_db_num_entries == 1 && zor_db[0].uc_addr == OTHER);
}
