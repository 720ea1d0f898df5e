# SPDX-License-Identifier: MIT
"""The texts that the library logs, and what each of them means to the reader of a log."""

import functools
import re

# What may stand in a field. A host's bytes are a payload, and nothing else may hold any.
_FIELDS = {
    "port": r"-?\d+",
    "bytes": r"-?\d+",
    "count": r"-?\d+",
    "value": r"-?\d+",
    "bool": r"true|false",
    "state": r"CONNECTED|DISCONNECTED",
    "node": r"/[^\s(]+",
    "file": r".+",
    "error": r"-?\d+: [\w /().,'-]+|ok",
    "side": r"[A-Za-z ()\d]+",
    "payload": r".*",
}

# Kind, the functions that log it, and the text. The class of a kind stands in CLASSES.
_TABLE = """
configured      setupConfig              configuration is now set
opening         openConnection           opening driver
thread_started  openConnection           start communication thread
reopen_bytes    openConnection           >>>> openConnection _totalBytesWaitingRead = <bytes>
no_memory       _openDrvInstance,_read   Error: raw data is null
node_refused    _openDrvInstance         Error: unable to open driver instance: <node>( <error> )
node_opened     _openDrvInstance         <node> successfully opened
nodes_opened    open                     all drivers opened successfully: <count>
open_failed     _connectedFunc           Failed to open driver !
discarded       _flushReadBuffer         Discarded message : <payload>
node_selected   _selectDriver            selected driver <node>
read_failed     _read                    <error>
partial_write   write                    _write() size = <bytes> (partial -> failed)
write_result    write                    Gadget, error code = <value>
write_error     write                    Write error: <error>
write_failed    write                    _write() failed (no byte sent)
cancel          cancelPendingIo          Cancel pending io not yet implemented on linux drivers
destroyed       ~UsbHAL                  UsbHAL::~UsbHAL
stopping        stop                     watchdog stopped
stopped         stop                     communication thread stopped
still_running   stop                     communication thread still running
node_closed     stop,_connectedFunc      USB driver closed
close_failed    stop                     ERROR: could not close USB driver !
close_failed    _connectedFunc           Could not close USB driver !
thread_ended    _endOfConnectedThread    clean exit of communication thread
watchdog_ended  _endOfConnectedThread    watchdog stopped
killed          _stopWorkerThread        communication thread did not stop -> killed
kill_failed     _stopWorkerThread        ERROR: could not stop communication thread !
watchdog        _mainLoop                watchdog errors: <count>
watchdog_limit  _mainLoop                max watchdog errors: <count>
link            _updateStatus            UsbHal switched to <state> state
read_attempts   _connectedFunc           Disconnect read attempts : <count>
write_attempts  _connectedFunc           Disconnect write attempts : <count>
retries         _connectedFunc           Disconnect number retries : <count>
cable           _connectedFunc           Disconnect cable disconnection detected : <bool>
close_after     _connectedFunc           closeDriverAfterConnectionError = <bool>
reopen          _connectedFunc           Try reopen driver...
reopen_failed   _connectedFunc           _hwDriver is NULL
reopen_wait     _connectedFunc           Unable to open driver, wait before retry
reopened        _connectedFunc           UsbHAL driver is opened
loss_closed     _connectedFunc           UsbHAL driver closed
closing         _connectedFunc           Closing hal, don't try to reopen driver
skip_write      _connectedFunc           Disconnection received, skip write message
max_read_size   _connectedFunc           max read size message sent with value = <bytes>
delay           _connectedFunc           Ask host to delay further writes
delay_end       _connectedFunc           Warn host he can write again
write_granted   _connectedFunc           write permission granted
port_lost       _changeAllSocketsState   emit disconnected
port_up         _onConnected             socket #<port>CONNECTED
port_down       _onDisconnected          socket #<port>DISCONNECTED
removed         _onDisconnected          <count> messages removed from Write FIFO for port <port>
forced          _onDisconnected          [USBHAL] force low-level disconnection
closing_port    closeConnection          closeConnection on port <port>
close_bytes     _closeConnection         >>>> _closeConnection _totalBytesWaitingRead = <bytes>
port_closed     _closeConnection         port #<port> has been CLOSED
disconnecting   disconnectFromHost       Disconnect <port> from host
disconnected    disconnectFromHost       <port> is now closed
port_reopened   _processDataMessage      port #<port> is now OPENED
received        _processDataMessage      <bytes> new bytes to be read by client connected on port <port>
read            read                     Message read for client #<port>of size <bytes>
queued          write                    Add to write queue message of size: <bytes>
remaining       write                    Remaining frame size = <bytes> is empty = <bool>
continued       write                    Continue...
write_full      write                    Write buffer storage limit reached, rest of the data dropped
no_room         write                    Maximum write size leaves no room for a payload
write_waits     write                    wait for <side>...
flushed         flush                    FIFO write is empty (<count>)
flush_failed    flush                    FIFO is not empty (<count>), leaving in timeout
rest_size       _processAllMessages      Remaining frame size : <bytes>
rest            _processAllMessages      Message: <payload>
not_valid       _processDataMessage      ERROR: Message received is not valid: <payload>
wrong_size      _processDataMessage      ERROR: Received message with wrong size ! Trash it: <payload>
wrong_id        _processDataMessage      ERROR: Received message with invalid connection id ! Trash it: <payload>
excerpt         _processDataMessage      [<payload>]
unknown_port    _processDataMessage      ERROR: message received for non-connected port: <port>
overflow        _processDataMessage      ERROR: Buffer Overflow on port #<port>
error_1         _onError                 Peer received message with wrong size ! Param = <value>
error_2         _onError                 Peer received message with wrong ID ! Param = <value>
error_3         _onError                 Could not allocate memory ! Param = <value>
error_4         _onError                 Tried to open a port already opened ! Param = <port>
error_5         _onError                 Too many clients connected ! Param = <port>
error_7         _onError                 Driver not initialized !
error_8         _onError                 Failed to close driver ! Param = <value>
error_9         _onError                 Peer received message for a not opened port ! on port #<port>
error_10        _onError                 Buffer overflow ! on port #<port>
old_file_stays  log                      failed to remove log file: <file>
log_ended       -                        ERROR: couldn't open new log file, stop logging !
"""

# Texts of the sources that no log can hold, because they are those of the host's role.
HOST_ROLE = {
    "Failed to open driver ! Exiting communication thread",
    "Read failed !",
    "we successfully read a message: we are now connected",
    "retry write",
    "handshake counter = <value>",
    "failed to setup handshake with device, leaving thread",
    "failed to open driver !",
    "max write size set to <bytes>",
    "max write size is invalid : <payload>",
}

_BAD = {
    "no_memory", "node_refused", "open_failed", "read_failed", "partial_write", "write_result",
    "write_error", "write_failed", "close_failed", "killed", "kill_failed", "watchdog",
    "watchdog_limit", "not_valid", "wrong_size", "wrong_id", "overflow", "log_ended",
    "write_full", "no_room", "still_running", "read_attempts", "write_attempts",
}
_WARN = {
    "delay", "removed", "port_lost", "port_down", "unknown_port", "excerpt", "discarded", "flush_failed",
    "old_file_stays", "retries", "cable", "reopen", "reopen_failed", "reopen_wait",
}
_GOOD = {"configured", "node_opened", "node_selected", "port_up", "delay_end", "thread_ended", "stopped"}


class Rule:
    """One text: its kind, the functions that log it, and how it is written."""

    def __init__(self, kind, functions, template):
        self.kind = kind
        self.functions = functions
        self.template = template
        self.literal = "<" not in template
        parts = re.split(r"<(\w+)>", template)
        pattern = [re.escape(part) if at % 2 == 0 else f"(?P<{part}>{_FIELDS[part]})"
                   for at, part in enumerate(parts)]
        self.pattern = re.compile("".join(pattern), re.DOTALL)

    def match(self, text):
        """The fields as a dictionary, or None."""
        if self.literal:
            return {} if text == self.template else None
        found = self.pattern.fullmatch(text)
        return found.groupdict() if found else None


def _read_table():
    for line in _TABLE.strip().splitlines():
        kind, functions, template = line.split(None, 2)
        yield Rule(kind, functions.split(","), template)


RULES = list(_read_table())
_BY_FUNCTION = {}
for _rule in RULES:
    for _function in _rule.functions:
        _BY_FUNCTION.setdefault(_function, []).append(_rule)


def recognise(function, text):
    """(kind, fields) of a logged text, or (None, {}) of one that is not known."""
    for rule in _BY_FUNCTION.get(function, ()):
        fields = rule.match(text)
        if fields is not None:
            return rule.kind, fields
    return None, {}


@functools.lru_cache(maxsize=None)
def severity(kind):
    """One of bad, warn, good and plain; what is not known is a warning."""
    if kind in _BAD or (kind or "").startswith("error_"):
        return "bad"
    if kind in _WARN or kind is None:
        return "warn"
    return "good" if kind in _GOOD else "plain"
