"""The factory default settings files of the box, opt/bin/default_settings_<mode>.conf.

Each file holds what tavid itself stores in data/settings.conf when it runs in that mode on a box
whose modules hold their factory values (tavimod.factory_settings) and whose outputs carry the
services below: one "set" request per object instance, in the order of the daemon's object table
(device, HDMI inputs, RF outputs, IP output) and by instance number, each the compact JSON text
with its keys in the daemon's order and the instance key last, followed by "\\n\\r".

Tags, and the order of services and streams, are those the daemon hands out in each mode. Its
objects are built from the highest number down, so the HDMI input on module n is the (count-1-n)th
made: its transport stream and service take that number as tag, its audio and video streams
twice that number and the one after. Lists grow at their head: a module's service lists its video
stream first, and each copy of a list (into a multiplexer, then into an output) reverses it again.
"""

import json

import tavimod

# The output modes, each with the number of HDMI inputs, the transport-stream tag of each output
# by output number, and how many list copies lie between an input and an output (RF and IP MPTS
# go through a multiplexer, IP SPTS straight from its one input).
LAYOUTS = {
    "rf": {"inputs": 4, "output": "output_rf", "output_ts_tags": (7, 6), "copies": 2},
    "ip_spts": {"inputs": 1, "output": "output_ip", "output_ts_tags": (1,), "copies": 1},
    "ip_mpts": {"inputs": 4, "output": "output_ip", "output_ts_tags": (5,), "copies": 2},
}

# The HDMI inputs whose services each output carries at the factory, by output number: every
# programme on every output. Both RF outputs must carry the same services: their multiplexers
# both read all four inputs and both write the on/off flags of the inputs' services, the one
# synced last winning, so a service switched on for one output only would never change its
# input's flag, and the module announcing it would not apply its new PSI.
CARRIED = {"rf": ({0, 1, 2, 3}, {0, 1, 2, 3}), "ip_spts": ({0},), "ip_mpts": ({0, 1, 2, 3},)}

# The module that modulates each RF output: output 0 on mod_tarn_0, output 1 on mod_tarn_2.
RF_OUTPUT_MODULES = (0, 2)

IP_DESTINATION = {"dst_addr": "239.0.0.1", "dst_port": "5000"}

TYPE_TEXTS = {1: "dvb-t", 2: "dvb-c", 4: "atsc-t", 8: "atsc-c", 16: "dtmb", 32: "isdb-t"}
CONSTELLATION_TEXTS = {2: "qpsk", 3: "8-vsb", 4: "16-qam", 5: "32-qam", 6: "64-qam", 7: "128-qam",
                       8: "256-qam", 18: "4-qam", 34: "4nr-qam"}
GUARDINTERVAL_TEXTS = ("1/32", "1/16", "1/8", "1/4")
CODERATE_TEXTS = ("1/2", "2/3", "3/4", "5/6", "7/8", "0.4", "0.6", "0.8")
FFTMODE_TEXTS = {0: "2k", 1: "8k"}  # 4K has no text
CARRIERTYPE_TEXTS = ("multi", "single")
INTERLEAVE_TEXTS = ("none", "240", "720")
SYNCFRAME_TEXTS = ("420", "945", "595")

# Stream types as the daemon numbers them (MPEG-2 systems codes), by the module's audio type.
AUDIO_STREAM_TYPES = {0: 15, 2: 4, 27: 27}
VIDEO_STREAM_TYPE = 27
SERVICE_TYPE = 1  # what the daemon reports for a module's service

RECORD_END = "\n\r"


def level_offset(frequency_khz: int) -> int:
    """What the daemon adds to its dBm figure before it sends an RF level, by frequency."""
    if frequency_khz <= 500000:
        return 5
    if frequency_khz <= 999999:
        return 8
    return 10


def level_dbm(parameters: dict) -> int:
    """The module's level byte read back as the daemon's dBm figure, on 8 signed bits."""
    value = (parameters["level"] - level_offset(parameters["frequency"])) & 0xFF
    return value - 0x100 if value >= 0x80 else value


def number(value: int) -> str:
    return f"{value}"


def input_position(mode: str, index: int) -> int:
    """How many HDMI inputs were made before the one on module `index`."""
    return LAYOUTS[mode]["inputs"] - 1 - index


def reordered(items: list, copies: int) -> list:
    """A list after `copies` copies that each push its items at the head of a new list."""
    return list(reversed(items)) if copies % 2 else list(items)


def module_streams(mode: str, index: int) -> list:
    """The module's streams as its own service lists them: video, then audio."""
    parameters = tavimod.factory_settings(index)["parameters"]
    position = input_position(mode, index)
    audio = {"stream_tag": number(2 * position), "pid": number(parameters["audio_pid"]),
             "type": number(AUDIO_STREAM_TYPES.get(parameters["audio_stream_type"], 0)),
             "bitrate": number(parameters["audio_bitrate"])}
    video = {"stream_tag": number(2 * position + 1), "pid": number(parameters["video_pid"]),
             "type": number(VIDEO_STREAM_TYPE), "bitrate": number(parameters["video_bitrate"])}
    return [video, audio]


def service(mode: str, index: int, enabled: bool, copies: int) -> dict:
    """The service of the HDMI input on module `index`, as a list `copies` copies away shows it."""
    parameters = tavimod.factory_settings(index)["parameters"]
    return {"service_tag": number(input_position(mode, index)), "sid": number(parameters["sid"]),
            "type": number(SERVICE_TYPE), "service_name": parameters["service_name"],
            "lcn": number(parameters["lcn"]), "pmt_pid": number(parameters["pmt_pid"]),
            "enabled": number(int(enabled)),
            "streams": reordered(module_streams(mode, index), copies)}


def transport_stream(tag: int, services: list) -> dict:
    """A transport stream with the network identity that every module holds at the factory."""
    parameters = tavimod.factory_settings(0)["parameters"]
    return {"ts_tag": number(tag), "tsid": number(parameters["tsid"]),
            "onid": number(parameters["onid"]), "nid": number(parameters["nid"]),
            "private_data_specifier": number(parameters["private_data_specifier"]),
            "network_name": parameters["network_name"],
            "network_version": number(parameters["network_version"]), "services": services}


def record(name: str, args: dict, id_key: str, instance: int) -> str:
    text = json.dumps({"action": "set", "object": name,
                       "args": {**args, id_key: number(instance)}},
                      separators=(",", ":"), ensure_ascii=False)
    return text + RECORD_END


def device_record(mode: str) -> str:
    return record("device", {"output_mode": mode}, "device_id", 0)


def input_record(mode: str, index: int) -> str:
    """The HDMI input on module `index`; its service is switched on when the outputs carry it."""
    parameters = tavimod.factory_settings(index)["parameters"]
    enabled = index in CARRIED[mode][-1]
    ts = transport_stream(input_position(mode, index), [service(mode, index, enabled, 0)])
    return record("input_hdmi", {"video_gopsize": number(parameters["video_gopsize"]), "ts": ts},
                  "input_id", index)


def output_ts(mode: str, output: int) -> dict:
    layout = LAYOUTS[mode]
    copies = layout["copies"]
    services = [service(mode, index, index in CARRIED[mode][output], copies)
                for index in range(layout["inputs"])]
    return transport_stream(layout["output_ts_tags"][output], reordered(services, copies))


def rf_modulation(index: int) -> dict:
    parameters = tavimod.factory_settings(index)["parameters"]
    return {"type": TYPE_TEXTS[parameters["output_type"]],
            "frequency": number(parameters["frequency"]), "level": number(level_dbm(parameters)),
            "bandwidth": number(parameters["bandwidth"]),
            "symbolrate": number(parameters["symbolrate"]),
            "constellation": CONSTELLATION_TEXTS[parameters["constellation"]],
            "guardinterval": GUARDINTERVAL_TEXTS[parameters["guardinterval"]],
            "coderate": CODERATE_TEXTS[parameters["coderate"]],
            "fftmode": FFTMODE_TEXTS[parameters["fftmode"]],
            "carriertype": CARRIERTYPE_TEXTS[parameters["carriertype"]],
            "interleave": INTERLEAVE_TEXTS[parameters["interleave"]],
            "syncframe": SYNCFRAME_TEXTS[parameters["syncframe"]],
            "enabled": number(parameters["rf_out_enable"])}


def output_record(mode: str, output: int) -> str:
    if LAYOUTS[mode]["output"] == "output_rf":
        args = {**rf_modulation(RF_OUTPUT_MODULES[output]), "ts": output_ts(mode, output)}
        return record("output_rf", args, "output_id", output)
    return record("output_ip", {**IP_DESTINATION, "ts": output_ts(mode, output)}, "output_id",
                  output)


def default_settings(mode: str) -> str:
    """The whole default settings file of a mode."""
    layout = LAYOUTS[mode]
    records = [device_record(mode)]
    records += [input_record(mode, index) for index in range(layout["inputs"])]
    records += [output_record(mode, output) for output in range(len(layout["output_ts_tags"]))]
    return "".join(records)
