// Pipe bus client, server and control calls, for platforms that do not install their own
// libfjord_pipe. A pipe is the directory /run/fjp/<name>/; see README.md beside this file.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define PIPE_CLIENT_MAX_CHANNELS 16
#define PIPE_SERVER_MAX_CHANNELS 16
#define PIPE_BUS_DIR "/run/fjp/"

// Client flag: start the reader thread that hands every read to the simple-helper callback.
#define CLIENT_FLAG_EN_SIMPLE_HELPER 1

typedef void (*pipe_client_connect_cb)(int channel, void* context);
typedef void (*pipe_client_disconnect_cb)(int channel, void* context);
typedef void (*pipe_client_simple_cb)(int channel, char* data, int bytes, void* context);

int pipe_client_set_connect_cb(int channel, pipe_client_connect_cb cb, void* context);
int pipe_client_set_disconnect_cb(int channel, pipe_client_disconnect_cb cb, void* context);
int pipe_client_set_simple_helper_cb(int channel, pipe_client_simple_cb cb, void* context);

// Opens client `channel` on the pipe at `path` (a directory under /run/fjp/, with or without
// the trailing slash). Succeeds while the publisher is not running yet; the reader thread
// connects when it appears and reconnects after it restarts. Negative for a bad channel,
// a path that does not fit, or a channel already open.
int pipe_client_open(int channel, const char* path, const char* client_name, int flags,
                     int buf_len);
void pipe_client_close(int channel);
void pipe_client_close_all(void);

// Publisher side: creates /run/fjp/<name>/ with its info file; writes of whole records
// reach every connected client as whole records.
int pipe_server_create(int channel, const char* name, const char* type);
int pipe_server_write(int channel, const void* data, int bytes);
int pipe_server_get_num_clients(int channel);
typedef void (*pipe_server_control_cb)(int channel, char* command, int bytes, void* context);
int pipe_server_set_control_cb(int channel, pipe_server_control_cb cb, void* context);
void pipe_server_close(int channel);
void pipe_server_close_all(void);

// Sends one control command to the publisher of pipe `name` (a bare name under /run/fjp/
// or a full path). 0 when it was delivered, negative when the pipe or its publisher is
// not there.
int pipe_send_control_cmd(const char* name, const char* command);

#ifdef __cplusplus
}
#endif
