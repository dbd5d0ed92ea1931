// The session table, its kernel rules and the activate and deactivate
// handlers, against atsw-sim and a sysfs directory under the test's root.
#include "sessions/activate_handlers.h"
#include "sessions/session_table.h"
#include "tests/embms/modem_fixture.h"

const char *const S1 = "0000010F1001", *const S2 = "0000020F2002", *const S3 = "0000030F3003";
// 239.1.2.3, 192.168.1.10 and 192.168.1.11
constexpr uint32_t GROUP = 0xEF010203, CLIENT = 0xC0A8010A, OTHER = 0xC0A8010B;
constexpr int32_t ADDED = 0, REFUSED = -1;
const std::string OK = "\r\nOK\r\n";

using Sessions = ModemFixture;

// Nine records at most, no two alike in all five fields; each new one writes
// its kernel rule.
TEST_F(Sessions, TheTableTakesNineDistinctRecords) {
  struct Row {
    const char* tmgi;
    uint32_t mc, uc;
    int32_t port, area, result;
  } rows[] = {
      {.tmgi = S1, .mc = GROUP, .uc = CLIENT, .port = 5000, .area = 1, .result = ADDED},
      {.tmgi = S1, .mc = GROUP, .uc = CLIENT, .port = 5000, .area = 1, .result = REFUSED},
      {.tmgi = S2, .mc = GROUP, .uc = CLIENT, .port = 5000, .area = 1, .result = ADDED},
      {.tmgi = S1, .mc = GROUP, .uc = CLIENT, .port = 5001, .area = 1, .result = ADDED},
      {.tmgi = S1, .mc = GROUP, .uc = OTHER, .port = 5000, .area = 1, .result = ADDED},
      {.tmgi = S1, .mc = GROUP + 1, .uc = CLIENT, .port = 5000, .area = 1, .result = ADDED},
      {.tmgi = S1, .mc = GROUP, .uc = CLIENT, .port = 5000, .area = 2, .result = ADDED},
  };
  for (const Row& r : rows)
    EXPECT_EQ(zor_db_insert_entry(r.tmgi, r.mc, r.uc, r.port, r.area), r.result) << r.port;
  EXPECT_EQ(rule("ue_fw_mcast_encaps_set"), "239.1.2.3 0 192.168.1.10 5000\n");
  for (int i = zor_db_num_entries; i < ZOR_DB_MAX_ENTRIES; ++i)
    EXPECT_EQ(zor_db_insert_entry(S3, GROUP, CLIENT, 6000 + i, 1), ADDED);
  EXPECT_EQ(zor_db_insert_entry(S3, GROUP, CLIENT, 7000, 1), REFUSED);
}

// A record removed takes its kernel rule with it; the records after it move down.
TEST_F(Sessions, RemovingARecordClosesItsGap) {
  EXPECT_EQ(zor_db_remove_entry_by_index(0), -1);  // empty
  for (int32_t port : {5000, 5001, 5002}) zor_db_insert_entry(S1, GROUP, CLIENT, port, 1);
  EXPECT_EQ(zor_db_remove_entry_by_index(3), -1);  // past the last
  EXPECT_EQ(zor_db_remove_entry_by_index(1), 0);
  EXPECT_TRUE(zor_db_num_entries == 2 && zor_db[1].uc_port == 5002);
  EXPECT_EQ(rule("ue_fw_mcast_encaps_del"), "239.1.2.3 0 192.168.1.10 5001\n");
  const std::string del = "/sys/devices/virtual/net/lte0/ue_fw_mcast_encaps_del\n";
  EXPECT_EQ(zt::count_of(log(), "1 > " + root_.path() + del), 1u);
}

std::string mbms(std::string verb, int area, const char* tmgi) {
  return "AT%MBMSCMD=\"" + verb + "\"," + std::to_string(area) + ",\"" + tmgi + "\"\n\r\n";
}

// The modem hears of a session once for all its receivers: activated for
// each new receiver, deactivated when the last one leaves.
TEST_F(Sessions, TheModemHearsOfASessionOnceForAllItsReceivers) {
  constexpr int OFF = 0, ON = 1, ALL_OFF = -1;  // ALL_OFF: every session of the client
  const std::string RELAYED = OK + "\r\n";  // the modem's OK passed on, then the link's line end
  const std::string S1_OFF = mbms("DEACTIVATE", 1, S1);
  struct Row {
    uint32_t client;
    int verb;
    const char* tmgi;
    int area;
    std::string modem, answer;
  } rows[] = {
      {CLIENT, ON, S1, 1, mbms("ACTIVATE", 1, S1), RELAYED},
      {CLIENT, ON, S1, 1, "", OK},  // already active for this client
      {OTHER, ON, S1, 1, mbms("ACTIVATE", 1, S1), RELAYED},
      {CLIENT, OFF, S1, 1, "", OK},  // the other client still receives it
      {OTHER, OFF, S1, 1, S1_OFF, RELAYED + OK},
      {OTHER, OFF, S1, 1, "", OK},  // not in the table
      {CLIENT, ALL_OFF, "", 0, "AT\n", RELAYED + OK},
      {OTHER, ON, S3, 1, mbms("ACTIVATE", 1, S3), RELAYED},
      {CLIENT, ON, S1, 1, mbms("ACTIVATE", 1, S1), RELAYED},
      {CLIENT, ON, S2, 7, mbms("ACTIVATE", 7, S2), RELAYED},
      {CLIENT, ON, S3, 1, mbms("ACTIVATE", 1, S3), RELAYED},
      // S2 moves into S1's place and is found in the next pass; S3 stays with
      // the other client. The modem's replies stay with the daemon.
      {CLIENT, ALL_OFF, "", 0, "AT\n" + S1_OFF + mbms("DEACTIVATE", 7, S2), RELAYED + OK},
  };
  size_t seen = 0;
  for (const Row& row : rows) {
    at_cmd_q_entry[at_cmd_q_entry_rd_index] = AtQEntry{.addr = row.client,
                                                       .port = 40000,
                                                       .mid = CHILD_MID,
                                                       .connfd = 9,
                                                       .ucast_port = CHILD_UCAST_PORT,
                                                       .delay_unsol = 0,
                                                       .cmd = "AT"};
    if (row.verb == ALL_OFF)
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
