// The command handlers against atsw-sim and the fake uci.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "embms/cell_query.h"
#include "embms/handlers.h"
#include "tests/embms/modem_fixture.h"

namespace {

const std::string CEREG = "AT+CEREG?\n\r\n", COPS_FORMAT = "AT+COPS=3,2\n\r\n", COPS = "AT+COPS?\n\r\n",
                  PCONI = "AT%PCONI\n\r\n", CIMI = "AT+CIMI\n\r\n";
const std::string OK = "\r\nOK\r\n", ERROR = "\r\nERROR\r\n";
const std::string QUOTED_CELL = "310410\"1A201A2D10";  // tac from its quote, ci after it

using Handlers = ModemFixture;

TEST_F(Handlers, SendTheModemTheseCommandsInOrder) {
  struct Row {
    const char* name;
    std::vector<std::string> control;
    std::function<void()> call;
    std::string sent;
  } rows[] = {
      {"set", {}, [] { zorSrv_HandleSetCEVVMEV(7); }, CEREG + COPS_FORMAT + COPS + PCONI},
      {"set, CEREG retried once", {"fail 1"}, [] { zorSrv_HandleSetCEVVMEV(7); }, CEREG + CEREG + COPS_FORMAT + COPS + PCONI},
      {"read CEVVMEV", {}, [] { zorSrv_HandleReadCEVVMEV(); }, CEREG + COPS_FORMAT + COPS + PCONI},
      {"read CEVVMEV, no retry", {"fail 1"}, [] { zorSrv_HandleReadCEVVMEV(); }, CEREG},
      {"read CEVVMCMD", {}, [] { zorSrv_HandleReadCEVVMCMD(); }, CIMI + CEREG + COPS_FORMAT + COPS + PCONI},
      {"read CEVVMCMD, no retry", {"answer AT+CEREG? \\r\\nERROR\\r\\n"}, [] { zorSrv_HandleReadCEVVMCMD(); }, CIMI + CEREG},
  };
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    row.call();
    EXPECT_EQ(modem_bytes(), row.sent) << row.name;
    client_bytes();
  }
}

TEST_F(Handlers, BuildTheCellIdentityFromPlmnTacAndCi) {
  struct Row {
    std::vector<std::string> control;
    std::string cell;
  } rows[] = {
      {{}, QUOTED_CELL},                                        // 6-digit PLMN, quoted tac and ci: 17
      {{"quote off"}, "3104101A2B1A2D101"},                     // bare: 17
      {{"quote off", "plmn 26201"}, "262011A2B1A2D101"},        // 5 digits: 16
      {{"quote off", "plmn 2620"}, "2620"},                     // 4 digits: just those
      {{"quote off", "spacing on", "cell 00C1 0BEEF001"}, "31041000C1BEEF001"},
  };
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    zorSrv_HandleReadCEVVMEV();
    EXPECT_EQ(client_bytes(), "\r\n+CEVVMEV:" + row.cell + ",FDD\r\nAOK\r\n") << row.cell;
  }
}

TEST_F(Handlers, ReadHandlersAnswerEachFailureAsDesigned) {
  struct Row {
    const char* name;
    std::vector<std::string> control;
    std::string ev;   // AT+CEVVMEV?; empty: not asked
    std::string cmd;  // AT+CEVVMCMD?
  } rows[] = {
      {"no IMSI", {"answer AT+CIMI \\r\\n+CIMI: X310\\r\\n\\r\\nOK\\r\\n"}, "", ERROR},
      {"registration unreadable", {"answer AT+CEREG? \\r\\nOK\\r\\n"},
       "\r\n+CEVVMEV:NULL,NULL\r\nAOK\r\n", "\r\n+CEVVMCMD:310410123456789,NULL,NULL" + OK},
      {"not registered", {"deregister 2"}, "\r\n+CEVVMEV:NULL,NULL\r\nAOK\r\n",
       "\r\n+CEVVMCMD:310410123456789,NULL,NULL" + OK},
      {"no PLMN", {"answer AT+COPS? \\r\\n+COPS: 0\\r\\n\\r\\nOK\\r\\n"}, ERROR, ERROR},
      {"no duplex mode", {"duplex none"}, ERROR, ERROR},
      {"all found", {"duplex TDD"}, "\r\n+CEVVMEV:" + QUOTED_CELL + ",TDD\r\nAOK\r\n",
       "\r\n+CEVVMCMD:310410123456789," + QUOTED_CELL + ",TDD" + OK},
  };
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    if (!row.ev.empty()) {
      zorSrv_HandleReadCEVVMEV();
      EXPECT_EQ(client_bytes(), row.ev) << row.name;
    }
    zorSrv_HandleReadCEVVMCMD();
    EXPECT_EQ(client_bytes(), row.cmd) << row.name;
    EXPECT_EQ(unsol_bytes(), "") << row.name;
  }
  EXPECT_NE(log().find("zorSrv_HandleReadCEVVMCMD:does not get IMSI\n"), std::string::npos);
  EXPECT_NE(log().find("zorSrv_HandleReadCEVVMEV: could not found PLMN\n"), std::string::npos);
}

TEST_F(Handlers, SetHandlerReportsOnlyWhatChanged) {
  struct Row {
    const char* name;
    std::vector<std::string> control;
    int event;
    std::string unsol;
  } rows[] = {
      {"first registered report", {}, 7, "+CEVVMEV:" + QUOTED_CELL + ",FDD,0\r\n"},
      {"unchanged", {}, 7, ""},
      {"unchanged, event -1", {}, -1, ""},
      {"PLMN missing", {"answer AT+COPS? \\r\\n+COPS: 0\\r\\n\\r\\nOK\\r\\n"}, 7, ""},
      {"duplex missing", {"answer AT+COPS?", "duplex none"}, 7, ""},
      {"cell changed", {"duplex FDD", "quote off"}, 7, "+CEVVMEV:3104101A2B1A2D101,FDD,0\r\n"},
      {"5-digit cell keeps the old tail", {"plmn 26201"}, 7, "+CEVVMEV:262011A2B1A2D101,FDD,0\r\n"},
      {"then compares with that tail", {}, 7, "+CEVVMEV:262011A2B1A2D101,FDD,0\r\n"},
  };
  for (const Row& row : rows) {
    for (const auto& c : row.control) modem(c);
    zorSrv_HandleSetCEVVMEV(row.event);
    EXPECT_EQ(unsol_bytes(), row.unsol) << row.name;
    EXPECT_EQ(client_bytes(), OK) << row.name;  // exactly one OK on every path
  }
  EXPECT_NE(log().find("zorSrv_HandleSetCEVVMEV event=-1\n"), std::string::npos);
  EXPECT_NE(log().find("send unsol : +CEVVMEV:262011A2B1A2D101,FDD,0\r\n"), std::string::npos);
}

TEST_F(Handlers, SetHandlerSendsTheNullLineWheneverNotRegistered) {
  for (const char* state : {"deregister 0", "deregister 2", "deregister 3", "deregister 4", "deregister 4"}) {
    modem(state);
    zorSrv_HandleSetCEVVMEV(-1);
    EXPECT_EQ(unsol_bytes(), "+CEVVMEV:NULL,NULL,0\r\n") << state;
    EXPECT_EQ(client_bytes(), OK) << state;
  }
}

TEST_F(Handlers, WanCheckAfterAnIpv4OnlyStart) {
  modem("deregister");  // the NULL line carries `changed` on every call
  struct Row {
    const char* control;
    int changed;
  } rows[] = {
      {"wan4 10.0.0.1", 0},       // first valid address, IPv4 only
      {"wan4 10.0.0.2", 1},       // a later change
      {"wan4 1.2.", 0},           // 4 characters: never stored
      {"wan4 10.0.0.2", 0},       // so this is no change
      {"wan4 none", 0},           // missing key: empty
      {"wan6 2001:db8::1", 1},    // the other family changes
      {"wan6 2001:db8::1", 0},
  };
  for (const Row& row : rows) {
    modem(row.control);
    zorSrv_HandleSetCEVVMEV(-1);
    EXPECT_EQ(unsol_bytes(), "+CEVVMEV:NULL,NULL," + std::to_string(row.changed) + "\r\n") << row.control;
    client_bytes();
  }
}

TEST_F(Handlers, WanCheckWithBothAddressesAtStartReportsAChange) {
  modem("wan4 10.0.0.1");
  modem("wan6 2001:db8::1");
  zorSrv_HandleSetCEVVMEV(7);
  EXPECT_EQ(unsol_bytes(), "+CEVVMEV:" + QUOTED_CELL + ",FDD,1\r\n");
}

TEST(UciGet, TakesTheFirstLineLessItsNewline) {
  zt::TempRoot root;
  std::string script = root.path() + "/uci";
  struct Row {
    std::string prints;
    size_t size;
    std::string value;
  } rows[] = {
      {"10.0.0.1\\n", 20, "10.0.0.1"},
      {"", 20, ""},
      {"2001:0db8:0000:0000:0000:0000:0000:0001\\n", 20, "2001:0db8:0000:0000"},
      {"a\\nb\\n", 20, "a"},
  };
  for (const Row& row : rows) {
    FILE* f = fopen(script.c_str(), "w");
    fprintf(f, "#!/bin/sh\nprintf '%s'\n", row.prints.c_str());
    fclose(f);
    chmod(script.c_str(), 0755);
    setenv("PATH", (root.path() + ":/usr/bin:/bin").c_str(), 1);
    std::vector<char> out(row.size + 8, 'Z');
    std::fill(out.begin(), out.begin() + static_cast<long>(row.size), '\0');
    EXPECT_EQ(zorSrv_UciGet("/tmp/wan.status.ipv4_addr", out.data(), row.size), 0);
    EXPECT_EQ(std::string(out.data()), row.value) << row.prints;
    EXPECT_EQ(out[row.size], 'Z') << "wrote past the buffer";
  }
}

// Answers longer than every buffer, and without the quotes, commas or colons
// the scans look for: the handlers answer and stay inside their buffers.
TEST_F(Handlers, SurviveAnswersOfAnyShape) {
  const std::string lng(3000, '7');
  const std::vector<std::vector<std::string>> rows = {
      {"answer AT+CEREG? " + lng + "\\r\\nOK\\r\\n"},
      {"answer AT+CEREG? \\r\\n+CEREG: 2,1," + lng + "," + lng + ",7\\r\\n\\r\\nOK\\r\\n"},
      {"answer AT+CEREG? \\r\\n" + lng + ": 2, 1, x, y, 7\\r\\n\\r\\nOK\\r\\n"},
      {"answer AT+COPS? \\r\\n+COPS: 0,2,\\\"" + lng + "\\\",7\\r\\n\\r\\nOK\\r\\n"},
      {"answer AT+COPS? \\r\\n+COPS: 0,2,\\\"\\r\\n\\r\\nOK\\r\\n"},
      {"answer AT%PCONI \\r\\n\\r\\nOK\\r\\nduplexing mode: "},
      {"answer AT+CIMI \\r\\n+CIMI: " + lng + "\\r\\n\\r\\nOK\\r\\n"},
      {"answer AT+CIMI \\r\\nOK\\r\\n"},
      {"answer AT+CEREG? \\r\\n+CEREG: 2,1\\r\\n\\r\\nOK\\r\\n"},
  };
  for (const auto& row : rows) {
    fresh_modem();
    for (const auto& c : row) modem(c);
    zorSrv_HandleReadCEVVMEV();
    zorSrv_HandleReadCEVVMCMD();
    zorSrv_HandleSetCEVVMEV(7);
    std::string out = client_bytes();
    EXPECT_EQ(zt::count_of(out, "OK\r\n") + zt::count_of(out, "ERROR\r\n"), 3u) << row[0].substr(0, 40) << out;
  }
}

TEST_F(Handlers, ScanTheRegistrationAnswerAndLogItsFieldsWhole) {
  struct Row {
    std::string answer;
    int fields;
    const char* tac;  // cut for the cell identity
    const char* ci;
    std::string entry;  // "" for none
  } rows[] = {
      {"\r\n+CEREG: 2,1,\"1A2B\",\"01A2B3C4\",7\r\n", 6, "\"1A2", "\"01A2B3C",
       "get Stat: 1, TAC: \"1A2B\", ECI: \"01A2B3C4\"\n"},
      {"+CEREG: 2,5,1A2B,01A2B3C4,7\r\n", 6, "1A2B", "01A2B3C4", "get Stat: 5, TAC: 1A2B, ECI: 01A2B3C4\n"},
      {"\r\n+CEREG: 2,5,\"ABCDEFGH\",\"0123456789ABCDEF\",7\r\n", 6, "\"ABC", "\"0123456",
       "get Stat: 5, TAC: \"ABCDEFGH\", ECI: \"0123456789ABCDEF\"\n"},
      {"+CEREG: 2,1,\"1A2B\"\r\n", 4, "\"1A2", "", "get Stat: 1, TAC: \"1A2B\"\r\n, ECI: \n"},
      {"+CEREG: 0,1\r\n", 3, "", "", "x:does not get CEREG\n"},
      {"no colon here", 1, "", "", "x:does not get CEREG\n"},
      {":", 0, "", "", "x:does not get CEREG\n"},
      {"", -1, "", "", "x:does not get CEREG\n"},
  };
  for (const Row& row : rows) {
    Registration reg = scan_registration(row.answer.c_str());
    EXPECT_EQ(reg.fields, row.fields) << row.answer;
    EXPECT_STREQ(reg.tac, row.tac) << row.answer;
    EXPECT_STREQ(reg.ci, row.ci) << row.answer;
    size_t before = zt::count_of(log(), row.entry);
    log_registration("x", reg);
    EXPECT_EQ(zt::count_of(log(), row.entry), before + 1) << row.answer;
  }

  char plmn[7];
  size_t length = 0;
  ASSERT_TRUE(find_plmn("+COPS: 0,2,\"1234567890\",7", plmn, &length));
  EXPECT_STREQ(plmn, "123456");
  EXPECT_EQ(length, 10u);
  EXPECT_FALSE(find_plmn("+COPS: 0", plmn, &length));
}

}  // namespace
