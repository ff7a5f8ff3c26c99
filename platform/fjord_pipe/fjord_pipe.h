// Pipe bus client, server and control calls, for platforms that do not install their own
// libfjord_pipe. A pipe is the directory /run/fjp/<name>/; see README.md beside this file.
//
// Every call returns 0 (or a count) on success and one of the negative PIPE_ERROR_* codes
// on failure, after a message on standard error.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define PIPE_CLIENT_MAX_CHANNELS 16
#define PIPE_SERVER_MAX_CHANNELS 16
#define PIPE_BUS_DIR "/run/fjp/"

// Largest record a server writes in one call, and largest control command.
#define PIPE_MAX_RECORD_BYTES 65536
#define PIPE_MAX_CONTROL_CMD_BYTES 1024

#define PIPE_ERROR_OTHER (-1)
#define PIPE_ERROR_INVALID_ARG (-2)     // bad channel number, null or empty argument
#define PIPE_ERROR_PATH_TOO_LONG (-3)   // the pipe's socket paths would not fit sun_path
#define PIPE_ERROR_CHANNEL_OPEN (-4)    // the channel is already open in this process
#define PIPE_ERROR_NOT_OPEN (-5)        // the channel is not open
#define PIPE_ERROR_SERVER_RUNNING (-6)  // another live server already publishes that pipe
#define PIPE_ERROR_NO_SERVER (-7)       // nobody publishes that pipe
#define PIPE_ERROR_NO_CONTROL (-8)      // the server takes no control commands
#define PIPE_ERROR_TIMEOUT (-9)         // the server did not acknowledge in time

// Client flag: start the reader thread that hands every read to the simple-helper callback.
#define CLIENT_FLAG_EN_SIMPLE_HELPER 1

typedef void (*pipe_client_connect_cb)(int channel, void* context);
typedef void (*pipe_client_disconnect_cb)(int channel, void* context);
typedef void (*pipe_client_simple_cb)(int channel, char* data, int bytes, void* context);

// Callbacks may be set before or after opening; they run on the channel's reader thread.
int pipe_client_set_connect_cb(int channel, pipe_client_connect_cb cb, void* context);
int pipe_client_set_disconnect_cb(int channel, pipe_client_disconnect_cb cb, void* context);
int pipe_client_set_simple_helper_cb(int channel, pipe_client_simple_cb cb, void* context);

// Opens client `channel` on the pipe at `path` (a directory such as /run/fjp/vtx_latency,
// with or without the trailing slash; a bare name is taken under /run/fjp/). Succeeds
// while the publisher is not running yet; the reader thread connects when it appears and
// reconnects after it restarts. Each read delivers exactly one record as the server wrote
// it; a record longer than `buf_len` (1 byte to 16 MiB) is dropped with a message.
// Negative for a bad channel, a path that does not fit, or a channel already open.
int pipe_client_open(int channel, const char* path, const char* client_name, int flags,
                     int buf_len);
// Stops the reader thread; the disconnect callback is not called for a close. Must not be
// called from the channel's own callbacks.
void pipe_client_close(int channel);
void pipe_client_close_all(void);

// Publisher side: creates the pipe directory (a bare name under /run/fjp/, or an absolute
// path used as is) with its info file; each pipe_server_write reaches every connected
// client as one whole record. A client that falls behind loses records instead of
// stalling the publisher.
int pipe_server_create(int channel, const char* name, const char* type);
int pipe_server_write(int channel, const void* data, int bytes);
int pipe_server_get_num_clients(int channel);
typedef void (*pipe_server_control_cb)(int channel, char* command, int bytes, void* context);
int pipe_server_set_control_cb(int channel, pipe_server_control_cb cb, void* context);
void pipe_server_close(int channel);
void pipe_server_close_all(void);

// Sends one control command to the publisher of pipe `name` (a bare name under /run/fjp/
// or a full path). 0 once the publisher's control callback has taken it, negative when the
// pipe or its publisher is not there or it takes no commands.
int pipe_send_control_cmd(const char* name, const char* command);

// Moves the root that bare pipe names resolve under (default /run/fjp/) for this process;
// null restores the default. For test rigs that cannot map /run/fjp/ elsewhere.
int pipe_bus_set_dir(const char* dir);

#ifdef __cplusplus
}
#endif
