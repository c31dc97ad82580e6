"""The event history of the process or core in gdb:

    corvex-hist dump [OPTION]...     the text dump, as the program corvex-hist writes it
    corvex-hist info                 settings, losses, crash record
    corvex-hist threads              the thread table alone
    set corvex-hist-tool FILE        where the program corvex-hist is

gdb loads this file by itself beside the library when both are installed below gdb's own prefix; elsewhere

    source /usr/local/share/gdb/auto-load/usr/local/lib/libcorvex16_r.so.16.0.0-gdb.py

No symbols are needed. The memory goes to the program as a small core: the image, and the pages where its texts lie when
it holds only their addresses. So gdb's own ways to them serve, among them `set sysroot` and a remote target."""

import os
import re
import shutil
import struct
import subprocess
import tempfile

import gdb

PAGE = 4096
MAGIC = b"cvx\xf1hist\xa6image\r\n"

# What is read here of corvex/hist_image.h, version 2.
VERSION, HEADER = 2, struct.Struct("<16sIIQQ")  # magic, version, bytes of the header, of the image, base
SECTION = struct.Struct("<QQQQ")  # at, bytes, entry bytes, entries
RINGS, TEXTS, VIEWS = 1, 2, 14
TEXTS_OF = {RINGS: (320, (40, 208, 216)), VIEWS: (768, (48, 56, *range(88 + 16, 88 + 16 * 40, 40)))}
LONGEST_TEXT = 65536  # as corvex-hist takes
LARGEST_HOLE = 1 << 26  # in what can be read of an image: its size may be wrong

ELF = struct.Struct("<4sBBB9xHHIQQQIHHHHHH")
SEGMENT = struct.Struct("<IIQQQQQQ")
READ, WRITE = 4, 2


def read(address, length):
    """The memory, or nothing where it cannot be read."""
    try:
        return bytes(gdb.selected_inferior().read_memory(address, length))
    except (gdb.error, OverflowError):
        return b""


def is_image(address):
    header = read(address, HEADER.size)
    return len(header) == HEADER.size and header[:16] == MAGIC and HEADER.unpack(header)[4] == address


def image_by_symbol():
    try:
        pointer = int(gdb.parse_and_eval("&ut_hist_image_now"))
    except gdb.error:
        return None
    address = int.from_bytes(read(pointer, 8), "little")
    return address if is_image(address) else None


def text_of(command):
    try:
        return gdb.execute(command, to_string=True)
    except gdb.error:
        return ""


def writable_ranges():
    """Of a process its mappings, of a core its segments; of both what they hold of files when it may be writable."""
    for begin, end in re.findall(r"(0x\w+) - (0x\w+) is load\d+", text_of("info files")):
        yield int(begin, 16), int(end, 16)
    mapping = r"^ *(0x\w+) +(0x\w+) +0x\w+ +0x\w+(?: +([r-][w-][x-][ps]))?"
    for begin, end, rights in re.findall(mapping, text_of("info proc mappings"), re.MULTILINE):
        if rights[1:2] != "-":
            yield int(begin, 16), int(end, 16)


def image_by_magic():
    for begin, end in writable_ranges():
        while begin < end:
            try:
                found = gdb.selected_inferior().search_memory(begin, end - begin, MAGIC)
            except gdb.error:  # it cannot be read
                break
            if found is None:
                break
            if found % PAGE == 0 and is_image(found):
                return found
            begin = found + 1
    return None


def pieces(begin, end, size):
    """What can be read of a range, as (address, bytes)."""
    read_upto = begin
    for at in range(begin, end, size):
        if at - read_upto > LARGEST_HOLE:
            break
        upto = min(at + size, end)
        data = read(at, upto - at)
        parts = [(at, data)] if data else pieces(at, upto, PAGE) if size > PAGE else []
        for part in parts:
            yield part
            read_upto = part[0] + len(part[1])


def text_addresses(image):
    """Of the texts that the image does not hold."""
    sections = [SECTION.unpack_from(image, HEADER.size + i * SECTION.size) for i in range(VIEWS + 1)]
    if sections[TEXTS][1] != 0:
        return
    for number, (entry_bytes, places) in TEXTS_OF.items():
        at, _, size, entries = sections[number]
        if size < entry_bytes or at + size * entries > len(image):
            continue
        for entry in range(at, at + size * entries, size):
            for place in places:
                yield int.from_bytes(image[entry + place:entry + place + 8], "little")


def text_pages(base, image):
    """Those that the texts lie in, each followed to its end."""
    pages = {}
    for address in set(text_addresses(image)):
        end = address + LONGEST_TEXT
        while PAGE <= address < min(end, 1 << 47) and not base <= address < base + len(image):
            number = address // PAGE
            if number not in pages:
                pages[number] = read(number * PAGE, PAGE)
            if not pages[number] or b"\0" in pages[number][address % PAGE:]:
                break
            address = (number + 1) * PAGE
    return sorted(pages)


def core_of(segments):
    """A core of (rights, address, bytes)."""
    at = ELF.size + SEGMENT.size * len(segments)
    core = [ELF.pack(b"\x7fELF", 2, 1, 1, 4, 62, 1, 0, ELF.size, 0, 0, ELF.size, SEGMENT.size, len(segments), 0, 0, 0)]
    for rights, address, data in segments:
        core.append(SEGMENT.pack(1, rights, at, address, 0, len(data), len(data), PAGE))
        at += len(data)
    return b"".join(core + [data for _, _, data in segments])


def image_core():
    if gdb.selected_inferior().pid == 0:
        raise gdb.GdbError("There is no process and no core.")
    base = image_by_symbol() or image_by_magic()
    if base is None:
        raise gdb.GdbError("There is no history: it was not switched on (UT_HIST), or the core lacks its memory.")
    _, version, _, size, _ = HEADER.unpack(read(base, HEADER.size))
    held = list(pieces(base, base + size, 1 << 20))
    segments = [(READ | WRITE, at, data) for at, data in held]
    image = b"".join(data for _, data in held)
    if version == VERSION and len(image) == size:
        for number in text_pages(base, image):
            segments += [(READ, at, data) for at, data in pieces(number * PAGE, (number + 1) * PAGE, PAGE)]
    return core_of(segments[:0xFFFE])


class ToolFile(gdb.Parameter):
    """Where the program corvex-hist is."""

    set_doc = "Set the file of the program corvex-hist."
    show_doc = "Show the file of the program corvex-hist."

    def __init__(self):
        super().__init__("corvex-hist-tool", gdb.COMMAND_FILES, gdb.PARAM_OPTIONAL_FILENAME)
        self.value = ""

    def get_set_string(self):
        return ""

    def get_show_string(self, value):
        return "The program corvex-hist is " + (value or "looked for beside this library and in PATH.")

    def file(self):
        if self.value:
            return self.value
        # Not beside the library that the process uses, which may be anybody's.
        folder = os.path.realpath(SCRIPT)
        while folder != "/":
            folder = os.path.dirname(folder)
            if os.access(os.path.join(folder, "bin", "corvex-hist"), os.X_OK):
                return os.path.join(folder, "bin", "corvex-hist")
        return shutil.which("corvex-hist") or "corvex-hist"


class Command(gdb.Command):
    def __init__(self, name, doc, arguments, select):
        self.__doc__ = doc
        super().__init__("corvex-hist " + name, gdb.COMMAND_DATA)
        self.arguments, self.select = arguments, select

    def invoke(self, argument, from_tty):
        self.dont_repeat()
        with tempfile.NamedTemporaryFile(prefix="corvex-hist-", suffix=".core") as core:
            core.write(image_core())
            core.flush()
            command = [TOOL.file(), *self.arguments, *gdb.string_to_argv(argument), core.name]
            try:
                ran = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=False)
            except OSError as error:
                raise gdb.GdbError(f"{command[0]}: {error.strerror}: try `set corvex-hist-tool FILE`.") from error
            for stream, text in ((gdb.STDOUT, self.select(ran.stdout)), (gdb.STDERR, ran.stderr)):
                gdb.write(text.decode(errors="replace").replace(core.name, "the process"), stream)


def thread_table(dump):
    begin = dump.find(b"********** HISTORY THREADS BEGIN")
    return dump[begin:] if begin >= 0 else b"The history keeps no thread table (UT_HIST_EXT=tables).\n"


class Prefix(gdb.Command):
    """The event history of the process or core."""

    def __init__(self):
        super().__init__("corvex-hist", gdb.COMMAND_DATA, gdb.COMPLETE_NONE, True)


SCRIPT = Prefix.__init__.__code__.co_filename
Prefix()
TOOL = ToolFile()
Command("dump", "Show the event history. Options are those of the program corvex-hist.", ["dump"], bytes)
Command("info", "Show the settings of the event history, its losses and the crash record.", ["info"], bytes)
Command("threads", "Show the thread table of the event history.", ["dump", "--tables"], thread_table)
