"""The encoder/modulator modules of the box simulator.

A module is a bus slave that takes one command frame per transaction, keeps the value of every
parameter the daemon can set, and answers with one reply frame. Set commands stage a value;
apply takes the staged values into use, and the PSI a module announces is built from the
values in use. Gets read the staged values, so that a value reads back as it was set.

On the bus a module acknowledges a command frame, then acknowledges nothing, the single wait
byte 0x00 included, while it is busy executing (busy_ms, 0 by default); after that it answers
reads with its reply frame, which the bus pads with 0x00 up to the length read. The reply
stays until the next command frame; before the first one a read gets only the padding.
"""

import copy
import itertools
import threading
import time
from dataclasses import dataclass, field
from functools import partial

FRAME_TAG = 0x23  # '#'
FRAME_END = 0x0D  # '\r'
WAIT_BYTE = b"\x00"
GET = 0x80  # a parameter's get code is its set code plus this

# Error byte of a reply.
ERR_OK = 0
ERR_INVALID = 1
ERR_UNKNOWN = 2
ERR_TIMEOUT = 3
ERR_OUT_OF_BOUNDS = 4

EXTRA_SERVICE_SLOTS = 3
NAME_LEN = 15
TEXT_LIMIT = 255  # what a reply's length byte can carry

# Corrupt reply frames a module can be told to send, and the byte that goes wrong.
CORRUPT_TAG = 0x24  # '$' in place of '#'
CORRUPT_END = 0x0A  # '\n' in place of '\r'
CORRUPT_LENGTH = 0xFF  # a payload length past any reply read
CORRUPTIONS = ("tag", "end", "length", "code")

OUTPUT_TYPES = (1, 2, 4, 8, 16, 32)  # DVB-T, DVB-C, ATSC-T, ATSC-C, DTMB, ISDB-T
CONSTELLATIONS = (2, 3, 4, 5, 6, 7, 8, 18, 34)
STREAM_TYPES = (0, 2, 27)  # AAC, MPEG-2, H.264

# What a module's stream type becomes in the PSI it announces (MPEG-2 systems stream_type).
PSI_STREAM_TYPES = {0: 0x0F, 2: 0x04, 27: 0x1B}
VIDEO_STREAM_TYPE = 27


class Refused(Exception):
    """A command the module does not carry out; the reply carries this error byte."""

    def __init__(self, error: int):
        super().__init__(error)
        self.error = error


@dataclass(frozen=True)
class Field:
    """How one value travels in a payload: a big-endian number of size bytes, or text
    (size 0). choices, when given, are the only values a set command may bring."""

    size: int
    signed: bool = False
    choices: tuple | None = None

    def decode(self, payload: bytes):
        """The value of a set command's payload; refuses a wrong length or value."""
        if self.size == 0:
            if len(payload) > NAME_LEN:
                raise Refused(ERR_OUT_OF_BOUNDS)
            return payload.decode("latin-1")
        if len(payload) != self.size:
            raise Refused(ERR_INVALID)
        value = int.from_bytes(payload, "big", signed=self.signed)
        if self.choices is not None and value not in self.choices:
            raise Refused(ERR_OUT_OF_BOUNDS)
        return value

    def encode(self, value) -> bytes:
        if self.size == 0:
            return value.encode("latin-1")
        return value.to_bytes(self.size, "big", signed=self.signed)

    def check(self, value):
        """A value put straight into the state: any value the payload can carry, also one
        that a set command would refuse."""
        if self.size == 0:
            if not isinstance(value, str) or len(value.encode("latin-1")) > TEXT_LIMIT:
                raise ValueError(f"not a text of up to {TEXT_LIMIT} characters: {value!r}")
            return value
        if isinstance(value, bool) or not isinstance(value, int):
            raise ValueError(f"not a number: {value!r}")
        try:
            self.encode(value)
        except OverflowError:
            raise ValueError(f"does not fit in {self.size} bytes: {value}") from None
        return value


class Char:
    """One character in one byte (the scan mode letter of the status)."""

    @staticmethod
    def encode(value: str) -> bytes:
        return value.encode("latin-1")

    @staticmethod
    def check(value):
        if not isinstance(value, str) or len(value.encode("latin-1")) != 1:
            raise ValueError(f"not one character: {value!r}")
        return value


U8 = Field(1)
S8 = Field(1, signed=True)
U16 = Field(2)
U32 = Field(4)
TEXT = Field(0)
FLAG = Field(1, choices=(0, 1))


def enum(*values) -> Field:
    return Field(1, choices=tuple(values))


# The module's own parameters: set code, name, field. The get code is the set code plus 0x80.
PARAMETERS = (
    (0x01, "output_type", enum(*OUTPUT_TYPES)),
    (0x02, "level", S8),  # the daemon's dBm plus its frequency-dependent offset
    (0x03, "frequency", U32),  # kHz
    (0x04, "bandwidth", U8),  # MHz
    (0x05, "symbolrate", U16),  # kBaud
    (0x06, "constellation", enum(*CONSTELLATIONS)),
    (0x07, "guardinterval", enum(0, 1, 2, 3)),
    (0x08, "coderate", enum(0, 1, 2, 3, 4, 5, 6, 7)),
    (0x09, "fftmode", enum(0, 1, 2)),
    (0x0A, "carriertype", enum(0, 1)),
    (0x0B, "interleave", enum(0, 1, 2)),
    (0x0C, "syncframe", enum(0, 1, 2)),
    (0x0D, "pnphase", U8),
    (0x0E, "video_bitrate", U16),  # kbit/s
    (0x0F, "video_gopsize", U8),
    (0x10, "audio_stream_type", enum(*STREAM_TYPES)),
    (0x11, "audio_bitrate", U16),  # kbit/s
    (0x12, "sid", U16),
    (0x13, "tsid", U16),
    (0x14, "onid", U16),
    (0x15, "nid", U16),
    (0x16, "private_data_specifier", U32),
    (0x17, "lcn", U16),
    (0x18, "service_name", TEXT),
    (0x19, "network_name", TEXT),
    (0x1A, "network_version", U8),
    (0x1B, "pmt_pid", U16),
    (0x1C, "video_pid", U16),
    (0x1D, "audio_pid", U16),
    (0x60, "level_unit", U8),
    (0x6A, "rf_out_enable", FLAG),
)

# The three extra-service slots of the PSI: the set payload starts with the slot number, the
# get payload is the slot number alone.
SLOT_PARAMETERS = (
    (0x62, "enable", FLAG),
    (0x63, "sid", U16),
    (0x64, "lcn", U16),
    (0x65, "service_name", TEXT),
    (0x66, "pmt_pid", U16),
    (0x67, "video_pid", U16),
    (0x68, "audio_pid", U16),
    (0x69, "audio_stream_type", enum(*STREAM_TYPES)),
)

PARAMETER_FIELDS = {name: kind for _, name, kind in PARAMETERS}
SLOT_FIELDS = {name: kind for _, name, kind in SLOT_PARAMETERS}

CODE_ALIVE = 0x00
CODE_INFO = 0xFF
CODE_STATUS = 0xFE
CODE_APPLY = 0x70
CODE_REBOOT = 0x71
CODE_FACTORY_RESET = 0x72
CODE_SET_CAL = 0x61
CODE_GET_CAL = CODE_SET_CAL | GET
CODE_SET_DEBUG_CODE = 0x6B
CODE_GET_DEBUG_CODE = CODE_SET_DEBUG_CODE | GET

# Firmware information: two bytes of the module's own (hardware revision), then the version
# as a letter and three numbers.
FACTORY_INFO = bytes([0x00, 0x01]) + b"V" + bytes([2, 4, 1])

# The status as the module reports it; the bit rate follows the modulation in use.
STATUS_FIELDS = (("lock", U8), ("video_height", U16), ("video_scan_mode", Char),
                 ("video_frame_rate", U8), ("max_output_bitrate_kbps", U16), ("overflow", U8))


def factory_settings(index: int) -> dict:
    """What a module holds when it leaves the factory. Modules differ by their place on the
    board (index 0 to 3), so that the services of the four can share one multiplex."""
    pmt_pid = 0x100 * (index + 1)
    parameters = {
        "output_type": 1, "level": 5, "frequency": 474000 + 8000 * index, "bandwidth": 8,
        "symbolrate": 6900, "constellation": 6, "guardinterval": 0, "coderate": 1,
        "fftmode": 1, "carriertype": 0, "interleave": 0, "syncframe": 0, "pnphase": 0,
        "video_bitrate": 8000, "video_gopsize": 25, "audio_stream_type": 0,
        "audio_bitrate": 192, "sid": index + 1, "tsid": 1, "onid": 1, "nid": 1,
        "private_data_specifier": 0x28, "lcn": index + 1, "service_name": f"HDMI {index + 1}",
        "network_name": "tavi", "network_version": 0, "pmt_pid": pmt_pid,
        "video_pid": pmt_pid + 1, "audio_pid": pmt_pid + 2, "level_unit": 0,
        "rf_out_enable": 1,
    }
    slot = {"enable": 0, "sid": 0, "lcn": 0, "service_name": "", "pmt_pid": 0, "video_pid": 0,
            "audio_pid": 0, "audio_stream_type": 0}
    return {"parameters": parameters,
            "extra_services": [dict(slot) for _ in range(EXTRA_SERVICE_SLOTS)],
            "calibration": {"enable": 0, "i": 0, "q": 0},
            "debug_codes": {}}


def factory_status() -> dict:
    return {"lock": 1, "video_height": 1080, "video_scan_mode": "p", "video_frame_rate": 50,
            "max_output_bitrate_kbps": 0, "overflow": 0}


# -- what the modulation in use can carry ----------------------------------------------------

BITS_PER_SYMBOL = {2: 2, 3: 3, 4: 4, 5: 5, 6: 6, 7: 7, 8: 8, 18: 2, 34: 2}
CODE_RATES = (1 / 2, 2 / 3, 3 / 4, 5 / 6, 7 / 8, 0.4, 0.6, 0.8)
GUARD_FRACTIONS = (1 / 32, 1 / 16, 1 / 8, 1 / 4)
DTMB_FRAME_HEADERS = (420, 945, 595)
TS_EFFICIENCY = 188 / 204  # Reed-Solomon bytes of each packet
OFDM_SYMBOL_RATE_8MHZ = 6750  # useful data symbols per ms in 8 MHz
DTMB_SYMBOL_RATE = 7560
DTMB_FRAME_BODY = 3744
ATSC_T_RATE = 19392  # kbit/s of 8-VSB
ATSC_C_RATE = 38810  # kbit/s of 256-QAM cable


def max_output_bitrate_kbps(parameters: dict) -> int:
    """The highest TS bit rate the modulation of these parameters carries, in kbit/s."""
    output_type = parameters["output_type"]
    bits = BITS_PER_SYMBOL.get(parameters["constellation"], 0)
    code_rate = (CODE_RATES[parameters["coderate"]]
                 if parameters["coderate"] < len(CODE_RATES) else 0)
    if output_type == 2:  # DVB-C: a single carrier at the symbol rate
        rate = parameters["symbolrate"] * bits * TS_EFFICIENCY
    elif output_type == 4:
        rate = ATSC_T_RATE
    elif output_type == 8:
        rate = ATSC_C_RATE
    elif output_type == 16:
        header = DTMB_FRAME_HEADERS[parameters["syncframe"] % 3]
        rate = DTMB_SYMBOL_RATE * bits * code_rate * DTMB_FRAME_BODY / (DTMB_FRAME_BODY + header)
    else:  # OFDM: DVB-T and ISDB-T
        guard = GUARD_FRACTIONS[parameters["guardinterval"] % 4]
        rate = (OFDM_SYMBOL_RATE_8MHZ * parameters["bandwidth"] / 8 * bits * code_rate
                * TS_EFFICIENCY / (1 + guard))
    return min(int(rate), 0xFFFF)


# -- frames -----------------------------------------------------------------------------------


def command_frame_valid(frame: bytes) -> bool:
    """A '#' first and a '\\r' right after the payload that the length byte announces."""
    return (len(frame) >= 4 and frame[0] == FRAME_TAG and len(frame) > 3 + frame[2]
            and frame[3 + frame[2]] == FRAME_END)


def reply_frame(code: int, error: int, payload: bytes = b"") -> bytes:
    return bytes([FRAME_TAG, code, error, len(payload)]) + payload + bytes([FRAME_END])


def corrupt_frame(frame: bytes, kind: str) -> bytes:
    broken = bytearray(frame)
    if kind == "tag":
        broken[0] = CORRUPT_TAG
    elif kind == "end":
        broken[-1] = CORRUPT_END
    elif kind == "length":
        broken[3] = CORRUPT_LENGTH
    elif kind == "code":
        broken[1] ^= GET  # the code of the command's partner, a well-formed frame
    else:
        raise ValueError(f"unknown corruption {kind!r}, expected one of {CORRUPTIONS}")
    return bytes(broken)


def expect_length(payload: bytes, length: int):
    if len(payload) != length:
        raise Refused(ERR_INVALID)


def command_names() -> dict:
    """The name of every command code, as the command log shows it."""
    names = {CODE_ALIVE: "get_alive", CODE_INFO: "get_info", CODE_STATUS: "get_status",
             CODE_APPLY: "apply", CODE_REBOOT: "reboot", CODE_FACTORY_RESET: "factory_reset",
             CODE_SET_CAL: "set_cal", CODE_GET_CAL: "get_cal",
             CODE_SET_DEBUG_CODE: "set_hw_debug_code", CODE_GET_DEBUG_CODE: "get_hw_debug_code"}
    for code, name, _ in PARAMETERS:
        names[code], names[code | GET] = f"set_{name}", f"get_{name}"
    for code, name, _ in SLOT_PARAMETERS:
        names[code] = f"set_extra_service_info_{name}"
        names[code | GET] = f"get_extra_service_info_{name}"
    return names


COMMAND_NAMES = command_names()

# Orders the command logs of all modules into one.
_SEQUENCE = itertools.count()


# -- the module -------------------------------------------------------------------------------


@dataclass
class Faults:
    """What a module is told to do wrong. busy_ms: how long it stays busy after each command
    frame; unknown: codes it answers as unknown; errors: code -> error byte it answers
    instead of executing; corrupt: code -> corruption of the reply (key None: every reply).
    Corrupted replies are to commands that were carried out."""

    busy_ms: int = 0
    unknown: set = field(default_factory=set)
    errors: dict = field(default_factory=dict)
    corrupt: dict = field(default_factory=dict)

    def corruption(self, code: int) -> str | None:
        return self.corrupt.get(code, self.corrupt.get(None))

    def to_json(self) -> dict:
        return {"busy_ms": self.busy_ms, "unknown": sorted(self.unknown),
                "errors": {str(code): error for code, error in sorted(self.errors.items())},
                "corrupt": {"all" if code is None else str(code): kind
                            for code, kind in self.corrupt.items()}}


class Module:
    """One encoder/modulator module, a bus slave (the Slave interface of tavisim).

    Every method takes the module's lock: the bus calls write and read from its connection
    threads, tests and the control channel look at the state from theirs."""

    def __init__(self, addr: int, index: int = 0, busy_ms: int = 0):
        self.addr = addr
        self.index = index
        self.faults = Faults(busy_ms=busy_ms)
        self._lock = threading.RLock()
        self._factory = factory_settings(index)
        self._commands = self._command_table()
        self.info = FACTORY_INFO
        self.status = factory_status()
        self.staged = copy.deepcopy(self._factory)
        self.applied = copy.deepcopy(self._factory)
        self.applies = 0
        self._update_status()
        self._log = []
        self._reply = b""
        self._ready_at = 0.0

    # -- the bus side ------------------------------------------------------------------------

    def write(self, data: bytes) -> bool:
        """While busy nothing is acknowledged; then the wait byte is, and any other write is
        a command frame."""
        with self._lock:
            if self.busy():
                return False
            if data != WAIT_BYTE:
                self._take(bytes(data))
            return True

    def read(self, length: int) -> bytes | None:
        with self._lock:
            return None if self.busy() else self._reply

    def busy(self) -> bool:
        return time.monotonic() < self._ready_at

    def _take(self, frame: bytes):
        if command_frame_valid(frame):
            code = frame[1]
            error, payload = self._execute(code, frame[3:3 + frame[2]])
            name = COMMAND_NAMES.get(code, "unknown")
        else:
            code = frame[1] if len(frame) > 1 else 0
            error, payload, name = ERR_INVALID, b"", "invalid_frame"
        reply = reply_frame(code, error, payload)
        kind = self.faults.corruption(code)
        if kind is not None:
            reply = corrupt_frame(reply, kind)
        self._reply = reply
        self._ready_at = time.monotonic() + self.faults.busy_ms / 1000
        self._log.append({"seq": next(_SEQUENCE), "time": time.time(), "addr": self.addr,
                          "command": name, "code": code, "frame": frame.hex(), "error": error,
                          "reply": reply.hex()})

    def _execute(self, code: int, payload: bytes) -> tuple:
        command = self._commands.get(code)
        if command is None or code in self.faults.unknown:
            return ERR_UNKNOWN, b""
        if code in self.faults.errors:
            return self.faults.errors[code], b""
        try:
            return ERR_OK, command(payload)
        except Refused as refusal:
            return refusal.error, b""

    # -- the commands ------------------------------------------------------------------------

    def _command_table(self) -> dict:
        table = {CODE_ALIVE: self._alive, CODE_INFO: self._get_info,
                 CODE_STATUS: self._get_status, CODE_APPLY: self._apply,
                 CODE_REBOOT: self._reboot, CODE_FACTORY_RESET: self._factory_reset,
                 CODE_SET_CAL: self._set_cal, CODE_GET_CAL: self._get_cal,
                 CODE_SET_DEBUG_CODE: self._set_debug_code,
                 CODE_GET_DEBUG_CODE: self._get_debug_code}
        for code, name, kind in PARAMETERS:
            table[code] = partial(self._set, name, kind)
            table[code | GET] = partial(self._get, name, kind)
        for code, name, kind in SLOT_PARAMETERS:
            table[code] = partial(self._set_slot, name, kind)
            table[code | GET] = partial(self._get_slot, name, kind)
        return table

    def _alive(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        return b""

    def _get_info(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        return self.info

    def _get_status(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        return b"".join(kind.encode(self.status[name]) for name, kind in STATUS_FIELDS)

    def _apply(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        self.applied = copy.deepcopy(self.staged)
        self.applies += 1
        self._update_status()
        return b""

    def _reboot(self, payload: bytes) -> bytes:
        """A restart forgets what was staged but not applied."""
        expect_length(payload, 0)
        self.staged = copy.deepcopy(self.applied)
        return b""

    def _factory_reset(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        self.staged = copy.deepcopy(self._factory)
        self.applied = copy.deepcopy(self._factory)
        self._update_status()
        return b""

    def _set_cal(self, payload: bytes) -> bytes:
        expect_length(payload, 3)
        self.staged["calibration"] = {"enable": payload[0], "i": S8.decode(payload[1:2]),
                                      "q": S8.decode(payload[2:3])}
        return b""

    def _get_cal(self, payload: bytes) -> bytes:
        expect_length(payload, 0)
        calibration = self.staged["calibration"]
        return S8.encode(calibration["i"]) + S8.encode(calibration["q"])

    def _set_debug_code(self, payload: bytes) -> bytes:
        expect_length(payload, 2)
        self.staged["debug_codes"][payload[0]] = payload[1]
        return b""

    def _get_debug_code(self, payload: bytes) -> bytes:
        expect_length(payload, 1)
        return bytes([self.staged["debug_codes"].get(payload[0], 0)])

    def _set(self, name: str, kind: Field, payload: bytes) -> bytes:
        self.staged["parameters"][name] = kind.decode(payload)
        return b""

    def _get(self, name: str, kind: Field, payload: bytes) -> bytes:
        expect_length(payload, 0)
        return kind.encode(self.staged["parameters"][name])

    def _set_slot(self, name: str, kind: Field, payload: bytes) -> bytes:
        if not payload:
            raise Refused(ERR_INVALID)
        slot = self._slot(payload[0])
        slot[name] = kind.decode(payload[1:])
        return b""

    def _get_slot(self, name: str, kind: Field, payload: bytes) -> bytes:
        expect_length(payload, 1)
        return kind.encode(self._slot(payload[0])[name])

    def _slot(self, number: int) -> dict:
        if number >= EXTRA_SERVICE_SLOTS:
            raise Refused(ERR_OUT_OF_BOUNDS)
        return self.staged["extra_services"][number]

    def _update_status(self):
        self.status["max_output_bitrate_kbps"] = max_output_bitrate_kbps(
            self.applied["parameters"])

    # -- what tests and people see and change ------------------------------------------------

    def commands(self) -> list:
        """The command log: every command frame taken, with the reply it got."""
        with self._lock:
            return list(self._log)

    def clear_commands(self):
        with self._lock:
            self._log.clear()

    def psi(self) -> dict:
        """The PSI the module announces with the values in use: its own service, then the
        enabled extra-service slots. A PID of 0 is no stream."""
        with self._lock:
            applied = self.applied["parameters"]
            network = {name: applied[name] for name in (
                "tsid", "onid", "nid", "private_data_specifier", "network_name",
                "network_version")}
            own = {"slot": None, **{name: applied[name] for name in (
                "sid", "lcn", "service_name", "pmt_pid")},
                "streams": psi_streams(applied["audio_pid"], applied["audio_stream_type"],
                                       applied["video_pid"])}
            extras = [{"slot": number, **{name: slot[name] for name in (
                "sid", "lcn", "service_name", "pmt_pid")},
                "streams": psi_streams(slot["audio_pid"], slot["audio_stream_type"],
                                       slot["video_pid"])}
                for number, slot in enumerate(self.applied["extra_services"]) if slot["enable"]]
            return {**network, "services": [own, *extras]}

    def state(self) -> dict:
        with self._lock:
            return {"addr": self.addr, "index": self.index, "info": self.info.hex(),
                    "sw_version": sw_version(self.info), "status": dict(self.status),
                    "settings": settings_json(self.staged),
                    "applied": settings_json(self.applied),
                    "pending": self.staged != self.applied, "applies": self.applies,
                    "psi": self.psi(), "faults": self.faults.to_json()}

    def set_values(self, values: dict):
        """Puts values straight into the module, staged and in use alike, as if it had held
        them since power-up. Keys: parameter names, "extra_services" (a list of partial
        slots, by slot number), "calibration", "debug_codes" (code -> enable), "status",
        "info" (hex text of the 6 bytes). The status bit rate follows the new modulation
        unless "status" names it. Nothing is changed when a value is refused."""
        with self._lock:
            staged = copy.deepcopy(self.staged)
            status = dict(self.status)
            info = self.info
            for key, value in values.items():
                if key in PARAMETER_FIELDS:
                    staged["parameters"][key] = PARAMETER_FIELDS[key].check(value)
                elif key == "extra_services":
                    merge_slots(staged["extra_services"], value)
                elif key == "calibration":
                    merge_calibration(staged["calibration"], value)
                elif key == "debug_codes":
                    merge_debug_codes(staged["debug_codes"], value)
                elif key == "status":
                    merge_status(status, value)
                elif key == "info":
                    info = parse_info(value)
                else:
                    raise ValueError(f"no such module value: {key!r}")
            if "max_output_bitrate_kbps" not in values.get("status", {}):
                status["max_output_bitrate_kbps"] = max_output_bitrate_kbps(staged["parameters"])
            self.staged, self.applied = staged, copy.deepcopy(staged)
            self.status, self.info = status, info

    def set_fault(self, **faults):
        """busy_ms=N, unknown=[codes], error=(code, byte or None), corrupt=(code or None,
        kind or None); None removes."""
        with self._lock:
            if "busy_ms" in faults:
                self.faults.busy_ms = check_count(faults["busy_ms"])
            if "unknown" in faults:
                self.faults.unknown = {check_byte(code) for code in faults["unknown"]}
            if "error" in faults:
                code, error = faults["error"]
                set_or_remove(self.faults.errors, check_byte(code),
                              None if error is None else check_byte(error))
            if "corrupt" in faults:
                code, kind = faults["corrupt"]
                if kind is not None and kind not in CORRUPTIONS:
                    raise ValueError(f"unknown corruption {kind!r}, expected one of {CORRUPTIONS}")
                set_or_remove(self.faults.corrupt, None if code is None else check_byte(code), kind)

    def clear_faults(self):
        """Also ends a busy time in progress: a test holds the module busy while it acts, then
        lets the waiting command finish."""
        with self._lock:
            self.faults = Faults()
            self._ready_at = 0.0


# -- helpers of the state views ---------------------------------------------------------------


def psi_streams(audio_pid: int, audio_type: int, video_pid: int) -> list:
    streams = [{"pid": audio_pid, "stream_type": PSI_STREAM_TYPES.get(audio_type)},
               {"pid": video_pid, "stream_type": PSI_STREAM_TYPES[VIDEO_STREAM_TYPE]}]
    return [stream for stream in streams if stream["pid"]]


def sw_version(info: bytes) -> str:
    return f"{chr(info[2])}{info[3]}.{info[4]}.{info[5]}"


def settings_json(settings: dict) -> dict:
    return {"parameters": dict(settings["parameters"]),
            "extra_services": [dict(slot) for slot in settings["extra_services"]],
            "calibration": dict(settings["calibration"]),
            "debug_codes": {str(code): enable
                            for code, enable in sorted(settings["debug_codes"].items())}}


def check_byte(value) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or not 0 <= value <= 0xFF:
        raise ValueError(f"not a byte: {value!r}")
    return value


def check_count(value) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or value < 0:
        raise ValueError(f"not a count: {value!r}")
    return value


def check_keys(values: dict, allowed, what: str):
    if not isinstance(values, dict):
        raise ValueError(f"{what}: not an object: {values!r}")
    unknown = set(values) - set(allowed)
    if unknown:
        raise ValueError(f"{what}: no such values: {sorted(unknown)}")


def merge_slots(slots: list, values: list):
    if not isinstance(values, list) or len(values) > EXTRA_SERVICE_SLOTS:
        raise ValueError(f"extra_services: not a list of up to {EXTRA_SERVICE_SLOTS} slots")
    for slot, slot_values in zip(slots, values):
        check_keys(slot_values, SLOT_FIELDS, "extra_services")
        for name, value in slot_values.items():
            slot[name] = SLOT_FIELDS[name].check(value)


def merge_calibration(calibration: dict, values: dict):
    check_keys(values, ("enable", "i", "q"), "calibration")
    for name, value in values.items():
        calibration[name] = (U8 if name == "enable" else S8).check(value)


def merge_debug_codes(codes: dict, values: dict):
    """Codes as numbers or, as JSON keys must be, as text."""
    if not isinstance(values, dict):
        raise ValueError(f"debug_codes: not an object: {values!r}")
    for code, enable in values.items():
        codes[check_byte(int(code, 0) if isinstance(code, str) else code)] = check_byte(enable)


def merge_status(status: dict, values: dict):
    check_keys(values, status, "status")
    for name, kind in STATUS_FIELDS:
        if name in values:
            status[name] = kind.check(values[name])


def parse_info(text: str) -> bytes:
    info = bytes.fromhex(text)
    if len(info) != len(FACTORY_INFO):
        raise ValueError(f"info: not {len(FACTORY_INFO)} bytes: {text!r}")
    return info


def set_or_remove(table: dict, key, value):
    if value is None:
        table.pop(key, None)
    else:
        table[key] = value
