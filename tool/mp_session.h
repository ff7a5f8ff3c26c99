// The Realtek MP test script as the calibration's transmit source: a child process spoken
// to by one command line at a time on its standard input, answered by "OK" or "ERR" lines
// on its standard output. The radio transmits only between "resume" and "pause".
#pragma once

#include <sys/types.h>

#include <string>

#include "i2c-monitor.h"

constexpr const char* kMpScriptPath = "/usr/bin/rtw_mp_test.sh";
constexpr int kMpFrameBytes = 7800;  // bytes per continuous-TX frame

extern pid_t g_mp_pid;  // -1 when no session
extern int g_mp_in;     // -1 when closed
extern int g_mp_out;    // -1 when closed
extern std::string g_mp_buf;
extern CalibrationTx g_mp_tx;

int mp_start(int frequency_mhz, int mcs);  // 0 when the session is up; -1 after its messages
bool mp_read_line(std::string* line, int timeout_ms);
int mp_command(const char* text);
int mp_tx_off();
int mp_tx_on();
int mp_set_frequency(int frequency_mhz);
int mp_set_power(int power_level);
void mp_stop();
void mp_on_signal(int signal_number);
