"""What the harness writes for the daemon and the simulators, and reads back
from them: working directories, Config.txt, Directory.Conf, the states and
pid files, test pictures, the simulators' request records and the launcher's
answers."""

import os
import random
import re

from .wire import CONTROL_PORT, MYIP

# A channel the simulated camera serves: its camera address and port are
# also where the control port listens (the camera redirect sorts the two).
CONFIG_KEYS = [
    ("translator_tarndatatype", "Ostrel"),
    ("encoder_ip", MYIP),
    ("encoder_port", str(CONTROL_PORT)),
    ("translator_connect_ip", MYIP),
    ("translator_connect_port", "9100"),
    ("translator_connect_camerano", "1"),
    ("channel_authentic_switch", "0"),
    ("translator_calarm_rec_postterm", "60"),
]


def make_workdir(work, subdirs=("conf", "log", "mem")):
    """The daemon's working directory with the folders it writes into."""
    for d in subdirs:
        os.makedirs(os.path.join(work, d), exist_ok=True)
    return work


def write_config(work, channel=1, drop=(), comment="written by the test harness", **values):
    """<work>/conf/Config.txt for the channel: CONFIG_KEYS, with values
    overriding keys (and adding new ones after them); drop leaves keys out."""
    suffix = "_%04d" % channel
    lines = ["# " + line for line in comment.split("\n")]
    for key, default in CONFIG_KEYS:
        if key in drop:
            continue
        lines.append("%s%s=%s" % (key, suffix, values.pop(key, default)))
    for key, value in values.items():
        lines.append("%s%s=%s" % (key, suffix, value))
    with open(os.path.join(work, "conf", "Config.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")


def write_directory_conf(work, states_dir):
    with open(os.path.join(work, "Directory.Conf"), "w") as f:
        f.write("<Directory.Conf>\n <StatesDir>%s</StatesDir>\n</Directory.Conf>\n" % states_dir)


def states_path(work, name="1", states_dir=None):
    """The states file of a start named `name`: in Directory.Conf's states
    directory when there is one, else tmp.<name>.States in the working
    directory."""
    if states_dir:
        return os.path.join(states_dir, name + ".States")
    return os.path.join(work, "tmp.%s.States" % name)


def read_states(path):
    """The states file as a dict of element texts (the whole text under
    "_text"), None when absent."""
    try:
        with open(path) as f:
            text = f.read()
    except FileNotFoundError:
        return None
    fields = dict(re.findall(r"<(\w+)>([^<]*)</\1>", text))
    fields["_text"] = text
    return fields


def complete_states(path, state=None):
    """The states file once whole (it is rewritten in place) and, when state
    is given, in that state; else None."""
    s = read_states(path)
    if s and "</PPD.States>" in s["_text"] and (state is None or s.get("States") == state):
        return s
    return None


def pid_file(work, channel):
    return os.path.join(work, "mem", "Ostrel_%02d.pid" % channel)


def pid_file_holds(work, channel, pid):
    """The pid file holds exactly pid."""
    try:
        with open(pid_file(work, channel)) as f:
            return f.read() == str(pid)
    except FileNotFoundError:
        return False


def log_text(work, channel=1):
    text = ""
    for n in (0, 1):
        p = os.path.join(work, "log", "Ostrel_%02d_log%d.txt" % (channel, n))
        if os.path.exists(p):
            with open(p, encoding="latin-1") as f:
                text += f.read()
    return text


# ------------------------------------------------------- the launcher's view

def launcher_answer(body):
    """The launcher's view of an answer document."""
    return b"Content-Length: %d\nContent-type: text/plain\n\n%s" % (len(body), body)


ALREADY_ANSWER = launcher_answer(b"<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n")
TEMPLATE_ANSWER = launcher_answer(b"<L2Config_Template>\n\t<Sample />\n</L2Config_Template>\n")


def cgi_env(method, query=None, length=None):
    """The environment a web server gives the program as a CGI."""
    env = {"REQUEST_METHOD": method}
    if query is not None:
        env["QUERY_STRING"] = query
    if length is not None:
        env["CONTENT_LENGTH"] = str(length)
    return env


def success_answer(port):
    return launcher_answer(b"<Response>\n  <States>Success</States>\n  <Port>%d</Port>\n</Response>\n"
                           % port)


def start_failed_answer(comment):
    return launcher_answer(b"<Response>\n  <States>Err_StartFaild</States>\n  <Comment>%s</Comment>\n"
                           b"</Response>\n" % comment)


# --------------------------------------------------------------- pictures

def make_pictures(directory, count, seed=7, sizes=None):
    """Writes count distinct JPEG-framed files (SOI, JFIF APP0, comment
    segments with random bytes, EOI) into directory, in name order, and
    returns their bytes. One carries a fake multipart boundary in its data."""
    rng = random.Random(seed)
    os.makedirs(directory, exist_ok=True)
    pictures = []
    for i in range(count):
        size = sizes[i % len(sizes)] if sizes else rng.randint(2000, 60000)
        payload = rng.randbytes(size)
        if i == 1:
            payload = b"\r\n--myboundary\r\nContent-Length: 3\r\n\r\n" + payload
        out = bytearray(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00")
        out += b"\xff\xfe\x00\x10picture %06d" % i
        for off in range(0, len(payload), 65000):
            chunk = payload[off:off + 65000]
            out += b"\xff\xfe" + (len(chunk) + 2).to_bytes(2, "big") + chunk
        out += b"\xff\xd9"
        with open(os.path.join(directory, "p%04d.jpg" % i), "wb") as f:
            f.write(out)
        pictures.append(bytes(out))
    return pictures


def split_stamp(jpeg):
    """(seq, t_us, picture without the camera simulator's stamp segment)."""
    pos = 2
    while pos + 4 <= len(jpeg) and jpeg[pos] == 0xFF:
        length = int.from_bytes(jpeg[pos + 2:pos + 4], "big")
        seg = jpeg[pos + 4:pos + 2 + length]
        if jpeg[pos + 1] == 0xFE and seg.startswith(b"ostrel-stamp "):
            m = re.match(rb"ostrel-stamp seq=(\d+) t_us=(\d+)$", seg)
            if not m:
                raise AssertionError("bad stamp %r" % seg)
            return int(m.group(1)), int(m.group(2)), jpeg[:pos] + jpeg[pos + 2 + length:]
        pos += 2 + length
    raise AssertionError("picture without a stamp")


_RECORD_RE = re.compile(rb"#REQUEST \d+ peer=(\S+) t_us=\d+ bytes=(\d+)\n")


def read_records(path):
    """Requests recorded by a simulator: list of (peer, raw bytes)."""
    if not os.path.exists(path):
        return []
    with open(path, "rb") as f:
        data = f.read()
    out = []
    pos = 0
    while True:
        m = _RECORD_RE.match(data, pos)
        if not m:
            return out
        start = m.end()
        n = int(m.group(2))
        if len(data) < start + n + 1:
            return out  # the record is still being written
        out.append((m.group(1).decode(), data[start:start + n]))
        pos = start + n + 1
