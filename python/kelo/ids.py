"""The fields, codes and numbers that all services share, under the names that they have in kl/conventions.h."""

from __future__ import annotations

from typing import Final

from kelo.codec.message import Field

# System fields: what the message system itself reads.
SYS_TO: Final = Field[list[int]](0x88FF0001)
SYS_FROM: Final = Field[list[int]](0x88FF0002)
SYS_TYPE: Final = Field[int](0x08FF0003)
SYS_STATUS: Final = Field[int](0x08FF0004)
SYS_REPLYEXP: Final = Field[bool](0x00FF0005)
SYS_REQID: Final = Field[int](0x08FF0006)
SYS_CMD: Final = Field[int](0x08FF0007)
SYS_ERRNO: Final = Field[int](0x08FF0008)
SYS_ERRSTR: Final = Field[str](0x20FF0009)
SYS_USER: Final = Field[str](0x20FF000A)
SYS_POLICY: Final = Field[int](0x08FF000B)
SYS_CTRL: Final = Field[int](0x08FF000D)
SYS_CTRL_ARG: Final = Field[int](0x08FF000F)
SYS_NOTIFYCMD: Final = Field[int](0x08FF0011)
SYS_NOTIFYPATH: Final = Field[list[int]](0x88FF0012)

# Standard fields of services that show a table of objects.
STD_ID: Final = Field[int](0x08FE0001)
STD_OBJS: Final = Field[list[bytes]](0xA8FE0002)
STD_GETALLID: Final = Field[int](0x08FE0003)
STD_GETALLNO: Final = Field[int](0x08FE0004)
STD_NEXTID: Final = Field[int](0x08FE0005)
STD_UNDOID: Final = Field[int](0x08FE0006)
STD_DYNAMIC: Final = Field[bool](0x00FE0007)
STD_INACTIVE: Final = Field[bool](0x00FE0008)
STD_DESCR: Final = Field[str](0x20FE0009)
STD_DISABLED: Final = Field[bool](0x00FE000A)
STD_DEAD: Final = Field[int](0x08FE0013)

TYPE_REQUEST: Final = 1
TYPE_REPLY: Final = 2
STATUS_OK: Final = 1
STATUS_ERROR: Final = 2

CMD_NOOP: Final = 0xFE0000
CMD_GETPOLICIES: Final = 0xFE0001
CMD_GETOBJ: Final = 0xFE0002
CMD_SETOBJ: Final = 0xFE0003
CMD_GETALL: Final = 0xFE0004
CMD_ADDOBJ: Final = 0xFE0005
CMD_REMOVEOBJ: Final = 0xFE0006
CMD_MOVEOBJ: Final = 0xFE0007
CMD_NOTIFY: Final = 0xFE000B
CMD_SHUTDOWN: Final = 0xFE000C
CMD_GET: Final = 0xFE000D
CMD_SET: Final = 0xFE000E
CMD_START: Final = 0xFE000F
CMD_POLL: Final = 0xFE0010
CMD_CANCEL: Final = 0xFE0011
CMD_SUBSCRIBE: Final = 0xFE0012
CMD_UNSUBSCRIBE: Final = 0xFE0013
CMD_DISCONNECTED: Final = 0xFE0014
CMD_GETCOUNT: Final = 0xFE0015
CMD_RESET: Final = 0xFE0016

COMMANDS: Final[dict[str, int]] = {
    name: value for name, value in tuple(globals().items()) if name.startswith("CMD_")
}

ERROR_OK: Final = 0
ERROR_UNKNOWN: Final = 0xFE0001
ERROR_BRKPATH: Final = 0xFE0002
ERROR_NOTIMP: Final = 0xFE0003
ERROR_UNKNOWNID: Final = 0xFE0004
ERROR_MISSING: Final = 0xFE0005
ERROR_FAILED: Final = 0xFE0006
ERROR_EXISTS: Final = 0xFE0007
ERROR_NOTALLOWED: Final = 0xFE0009
ERROR_TOOBIG: Final = 0xFE000A
ERROR_UNKNOWNNEXTID: Final = 0xFE000B
ERROR_BUSY: Final = 0xFE000C
ERROR_TIMEOUT: Final = 0xFE000D

PATH_ALL: Final = 0xFF0001
PATH_MULTI: Final = 0xFF0002
PATH_SELF: Final = 0xFF0003

BADID: Final = 0xFFFFFFFF

SERVICE_LOADER: Final = 1
SERVICE_UNDO: Final = 17
SERVICE_LOG: Final = 18
SERVICE_SYSTEM: Final = 24

# Between the loader and one process.
CTRL_LEAVE: Final = 1
CTRL_LEFT: Final = 2
CTRL_REFUSED: Final = 3
CTRL_WANT_LEAVE: Final = 4
CTRL_HELLO: Final = 5
CTRL_RUNNING: Final = 6
CTRL_LEAVE_VALUE: Final = 7
CTRL_READY: Final = 8
CTRL_WAKE_AT: Final = 9
CTRL_DATA: Final = Field[bytes](0x28000004)  # in CTRL_LEFT, and as READY_DATA in CTRL_READY
REGISTRATION_VALUES: Final = Field[list[int]](0x88000001)
READY_ID: Final = Field[int](0x08000001)
READY_VERSION: Final = Field[int](0x08000002)
READY_STARTS: Final = Field[int](0x08000003)
READY_CONFIGURATION: Final = Field[bytes](0x28000005)

# The loader's table of services.
SVC_NAME: Final = Field[str](0x20000001)
SVC_ACTION: Final = Field[int](0x0800000D)
SVC_ACTIONS: Final = {"start": 1, "stop": 2, "restart": 3, "leave": 4}

# Reports to the undo service.
UNDO_REQUEST: Final = Field[bytes](0x28000001)
UNDO_MESSAGE: Final = Field[bytes](0x28000002)
UNDO_DESCRIPTION: Final = Field[str](0x20000003)
UNDO_RIGHTS: Final = Field[int](0x08000005)
UNDO_USER: Final = Field[str](0x20000006)

# The rules of the log service.
LOG_RULES: Final = 1
LOG_MUTED: Final = Field[bool](0x0000000B)
