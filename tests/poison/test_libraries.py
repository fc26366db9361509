"""A library that holds what strangers have made: each bad file is named in a sentence, and the apps beside it are installed."""
import os
import plistlib
import shutil
import socket
import stat
import struct
import threading
import zipfile

import pytest

from conftest import ICON, app_files, run, zip_of

GOOD = {"org.example.good": "1.0"}
LOCALES = [{"LC_ALL": "C"}, {"LC_ALL": "C.UTF-8"}, {"LC_ALL": "no such locale"}]


def app(**more):
    return zip_of(app_files("Bad", **more))


def with_end64(directory_start):
    """An app's archive whose end says that a second record states where the directory begins."""
    archive = app()
    end = archive.rindex(b"PK\5\6")
    entries, size = struct.unpack_from("<HI", archive, end + 10)
    record = struct.pack("<4sQHHIIQQQQ", b"PK\6\6", 44, 45, 45, 0, 0, entries, entries, size, directory_start)
    locator = struct.pack("<4sIQI", b"PK\6\7", 0, end, 1)
    return archive[:end] + record + locator + struct.pack("<4sHHHHIIH", b"PK\5\6", 0, 0, 0xFFFF, 0xFFFF, 0xFFFFFFFF,
                                                          0xFFFFFFFF, 0)


def pictures():
    """A hundred pictures, 8 kB each in the archive and 8 MB outside of it."""
    return app(files={f"{number}.png": bytes(8_000_000) for number in range(100)})


def with_raw_name(name):
    """An archive with a file of this name, of as many bytes as "Bad.app/XXXX"."""
    archive = app(files={"XXXX": b"content"})
    assert len(name) == len(b"Bad.app/XXXX")
    return archive.replace(b"Bad.app/XXXX", name)


def spacious_list():
    """A list that takes far more memory than bytes."""
    return b'<?xml version="1.0"?><plist version="1.0"><array>' + b"<true/>" * 500_000 + b"</array></plist>"


def deep_folders():
    """Many files, each below folders of its own."""
    return zip_of({**app_files("Bad"),
                   **{f"Bad.app/{number}/" + "a/" * 62 + "f": b"" for number in range(3000)}})


# What each archive is refused for.
ARCHIVES = {
    "empty": (lambda: b"", "it is empty"),
    "no archive": (lambda: b"nothing" * 1000, "it is no zip archive"),
    "cut": (lambda: app()[:-40], "it is no zip archive"),
    "end only": (lambda: b"PK\5\6" + bytes(18), "it holds no folder"),
    "directory beyond the end": (lambda: with_end64(1 << 40), "its directory is not where its end says"),
    "directory at the largest place": (lambda: with_end64((1 << 64) - 1), "its directory is not where its end says"),
    "directory at a negative place": (lambda: with_end64(1 << 63), "its directory is not where its end says"),
    "no app": (lambda: zip_of({"readme": b"text"}), "it holds no folder"),
    "two apps": (lambda: zip_of({**app_files("Bad"), **app_files("Worse")}), "it holds two apps"),
    "no Info.plist": (lambda: zip_of({"Bad.app/Bad": b"x"}), "Info.plist"),
    "damaged Info.plist": (lambda: zip_of({"Bad.app/Info.plist": b"x"}), "Info.plist"),
    "Info.plist of no dictionary": (lambda: zip_of({"Bad.app/Info.plist": plistlib.dumps([])}), "no dictionary"),
    "Info.plist of 50 MB": (lambda: zip_of({"Bad.app/Info.plist": bytes(50 << 20)}), "Info.plist"),
    "Info.plist of many elements": (lambda: zip_of({"Bad.app/Info.plist": spacious_list()}), "Info.plist"),
    "no identifier": (lambda: zip_of({"Bad.app/Info.plist": plistlib.dumps({})}), "BXBundleIdentifier"),
    "identifier that leads elsewhere": (lambda: app(info={"BXBundleIdentifier": "../a"}), "bundle identifier"),
    "metadata of 50 MB": (lambda: zip_of({**app_files("Bad"), "TamblinMetadata.plist": bytes(50 << 20)}), "larger"),
    "artwork of 50 MB": (lambda: zip_of({**app_files("Bad"), "TamblinArtwork": bytes(50 << 20)}), "larger"),
    "metadata that is a folder": (lambda: zip_of({**app_files("Bad"), "TamblinMetadata.plist/x": b""}), "a file"),
    "name that is no UTF-8": (lambda: with_raw_name(b"Bad.app/\xff\xfe\xfd\xfc"), '"Bad.app/\ufffd\ufffd\ufffd\ufffd" has a path that is not'),
    "name that leads upwards": (lambda: with_raw_name(b"Bad.app/../X"), '".."'),
    "two entries of one name": (lambda: with_raw_name(b"Bad.app/Bad\0"), "control character"),
    "pictures of 800 MB": (pictures, "times its size"),
    "200,000 folders": (deep_folders, "more than 65535"),
}


def expect_failed(answer, reason):
    """The file Bad.archive has a row of its own, which names it and says why."""
    rows = [app for app in answer.report()["apps"] if app["identifier"] is None]
    assert answer.code == 1 and len(rows) == 1, rows
    assert rows[0]["name"] == "Bad.archive" and rows[0]["result"] == "failed"
    assert "Bad.archive" in rows[0]["reason"] and reason in rows[0]["reason"], rows


@pytest.mark.parametrize("name", ARCHIVES)
def test_a_bad_archive_is_named_and_the_others_are_installed(world, name):
    make, reason = ARCHIVES[name]
    world.add("Good")
    (world.library / "Bad.archive").write_bytes(make())
    planned = run("sync", world.device, "--library", world.library, "--dry-run")
    assert planned.code == 1 and reason in planned.text and "Good         1.0      installed" in planned.out
    expect_failed(world.sync(), reason)
    assert world.apps() == GOOD


@pytest.mark.parametrize("name", ["directory beyond the end", "pictures of 800 MB"])
def test_a_bad_archive_in_a_catalogue_is_named(plain_world, name):
    make, reason = ARCHIVES[name]
    (plain_world.library / "Bad.archive").write_bytes(make())
    answer = run("store", plain_world.device, "--catalogue", plain_world.library, "--json")
    assert reason in answer.report()["problems"][0]


@pytest.mark.parametrize("name", ["directory beyond the end", "Info.plist of 50 MB", "Info.plist of many elements",
                                  "artwork of 50 MB", "pictures of 800 MB", "200,000 folders"])
def test_twenty_apps_beside_a_bad_archive_are_installed_in_little_memory(plain_world, name):
    for number in range(20):
        plain_world.add(f"App{number}")
    (plain_world.library / "App9x.archive").write_bytes(ARCHIVES[name][0]())
    plain_world.sync(limit=700)
    assert len(plain_world.apps()) == 20


def test_pictures_that_the_app_does_not_name_cost_nothing(world):
    world.add("Good", files={f"{number}.png": bytes(1_000_000) for number in range(60)})
    world.sync(megabytes=100)
    assert world.apps() == GOOD


# What is not a file, by how it is made.
def make_socket(path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(path))


NODES = {
    "fifo": os.mkfifo,
    "socket": make_socket,
    "zeros": lambda path: path.symlink_to("/dev/zero"),
    "terminal": lambda path: path.symlink_to("/dev/tty"),
    "link to a fifo": lambda path: (os.mkfifo(path.parent / ".fifo"), path.symlink_to(".fifo")),
    "link to nothing": lambda path: path.symlink_to("missing"),
    "link to itself": lambda path: path.symlink_to(path.name),
}


@pytest.mark.parametrize("name", NODES)
def test_what_is_no_file_is_named_and_never_waited_for(world, name):
    world.add("Good")
    NODES[name](world.library / "Bad.archive")
    expect_failed(world.sync(), "Bad.archive")
    assert world.apps() == GOOD


@pytest.mark.parametrize("name", [*NODES, "folder"])
def test_a_library_that_is_no_folder_is_named(plain_world, name):
    library = plain_world.folder / "place"
    library.mkdir() if name == "folder" else NODES[name](library)
    answer = run("sync", plain_world.device, "--library", library)
    assert answer.code == (0 if name == "folder" else 2) and (name == "folder" or "place" in answer.err)


@pytest.mark.parametrize("locale", LOCALES, ids=lambda locale: locale["LC_ALL"])
@pytest.mark.parametrize("is_marked", [True, False], ids=["marked", "unmarked"])
def test_names_are_utf8_whatever_the_locale(world, locale, is_marked):
    files = app_files("Good", info={"BXBundleIconFile": "Ikon-\u00e4.png"}, files={"Ikon-\u00e4.png": ICON})
    archive = zip_of({path.replace("Good.app", "G\u00fc\u6f22.app"): content for path, content in files.items()})
    if not is_marked:
        archive = unmarked(archive)
    (world.library / "Good.archive").write_bytes(archive)
    assert world.sync(environment=locale).results() == {"org.example.good": "installed"}


def unmarked(archive):
    """The archive without its marks that names are UTF-8."""
    changed = bytearray(archive)
    for signature, place in ((b"PK\3\4", 6), (b"PK\1\2", 8)):
        start = -1
        while (start := archive.find(signature, start + 1)) >= 0:
            flags = struct.unpack_from("<H", changed, start + place)[0]
            struct.pack_into("<H", changed, start + place, flags & ~0x800)
    return bytes(changed)


# Packing.
def app_folder(world, name="Bad"):
    """An app's folder, beside its metadata and artwork."""
    for path, content in app_files(name).items():
        target = world.folder / "source" / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
    app = world.folder / "source" / f"{name}.app"
    (app / name).chmod(0o755)
    return app


def pack(world, source, **options):
    return run("pack", source, "-o", world.library / "Bad.archive", **options)


@pytest.mark.parametrize("locale", LOCALES, ids=lambda locale: locale["LC_ALL"])
def test_packed_names_are_marked_as_utf8_whatever_the_locale(plain_world, locale):
    source = app_folder(plain_world)
    (source / "\u00fc\u6f22").write_bytes(b"text")
    (source / "link").symlink_to("\u00fc\u6f22")
    assert pack(plain_world, source, environment=locale).code == 0
    with zipfile.ZipFile(plain_world.library / "Bad.archive") as archive:
        entry = archive.getinfo("Bad.app/\u00fc\u6f22")
        assert entry.flag_bits & 0x800 and archive.read(entry) == b"text"
        assert archive.read("Bad.app/link").decode() == "\u00fc\u6f22"
    assert plain_world.sync(environment=locale).results() == {"org.example.bad": "installed"}


def put_raw(folder, name):
    descriptor = os.open(os.fsencode(folder) + b"/" + name, os.O_WRONLY | os.O_CREAT)
    os.close(descriptor)


# What cannot be packed: how it is made in the app's folder, and what is said.
UNPACKABLE = {
    "fifo": (lambda folder: os.mkfifo(folder / "odd"), '"Bad.app/odd" is neither a file, a folder nor a symbolic link'),
    "socket": (lambda folder: make_socket(folder / "odd"), '"Bad.app/odd" is neither a file'),
    "link upwards": (lambda folder: (folder / "odd").symlink_to(".."), '"Bad.app/odd" is a symbolic link to'),
    "link to nothing": (lambda folder: (folder / "odd").symlink_to("missing"), '"Bad.app/odd" is a symbolic link to'),
    "link to itself": (lambda folder: (folder / "odd").symlink_to("odd"), '"Bad.app/odd" is a symbolic link to'),
    "absolute link": (lambda folder: (folder / "odd").symlink_to("/etc/passwd"), "with an absolute target"),
    "line break": (lambda folder: put_raw(folder, b"a\nb"), '"Bad.app/a b" has a control character'),
    "backslash": (lambda folder: put_raw(folder, b"a\\b"), '"Bad.app/a\\b" has a control character or a backslash'),
    "no UTF-8": (lambda folder: put_raw(folder, b"\xff"), '"Bad.app/\ufffd" has a path that is not valid UTF-8'),
    "Info.plist as a link": (lambda folder: ((folder / "Info.plist").rename(folder / "x"),
                                             (folder / "Info.plist").symlink_to("x")), "Info.plist"),
    "Info.plist as a fifo": (lambda folder: ((folder / "Info.plist").unlink(), os.mkfifo(folder / "Info.plist")),
                             "Info.plist"),
    "artwork as a link": (lambda folder: ((folder.parent / "TamblinArtwork").unlink(),
                                          (folder.parent / "TamblinArtwork").symlink_to("Bad.app/Bad")),
                          '"TamblinArtwork" must be a file'),
    "folder with an app and its copy": (lambda folder: shutil.copytree(folder, folder.parent / "Copy.app"), "two apps"),
}


@pytest.mark.parametrize("name", UNPACKABLE)
def test_what_the_device_would_refuse_is_not_packed(plain_world, name):
    source = app_folder(plain_world)
    make, reason = UNPACKABLE[name]
    make(source)
    answer = pack(plain_world, source.parent)
    assert answer.code != 0 and reason in answer.err, answer
    assert list(plain_world.library.iterdir()) == []


# Files that are written for a person: what is asked for, by a word.
def convert(world, output, **options):
    source = world.folder / "source.plist"
    source.write_bytes(plistlib.dumps({"key": "value"}))
    return run("plist", "convert", source, "-o", output, **options)


def draw(world, output, **options):
    return run("screen", world.device, "-o", output, **options)


def pack_good(world, output, **options):
    return run("pack", app_folder(world), "-o", output, **options)


WRITERS = {"convert": (convert, b"bplist"), "pack": (pack_good, b"PK\3\4"), "screen": (draw, b"\x89PNG")}


@pytest.fixture(params=WRITERS)
def writer(request):
    return WRITERS[request.param]


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


def test_output_follows_no_prepared_link(plain_world, writer):
    write, begins = writer
    victim = plain_world.folder / "victim"
    victim.write_bytes(b"mine")
    place = plain_world.folder / "shared"
    place.mkdir()
    for name in ("out.unfinished", "out.part", "out.tmp", ".out.tmp"):
        (place / name).symlink_to(victim)
    assert write(plain_world, place / "out").code == 0
    assert victim.read_bytes() == b"mine"
    assert (place / "out").read_bytes().startswith(begins)
    assert len(list(place.iterdir())) == 5


@pytest.mark.parametrize("mode", [0o600, 0o640, 0o755, 0o444])
def test_replaced_output_keeps_its_mode(plain_world, writer, mode):
    output = plain_world.folder / "out"
    output.write_bytes(b"old")
    output.chmod(mode)
    assert writer[0](plain_world, output).code == 0
    assert mode_of(output) == mode and output.read_bytes().startswith(writer[1])


def test_new_output_gets_the_mode_that_the_mask_leaves(plain_world, writer):
    before = os.umask(0o027)
    try:
        assert writer[0](plain_world, plain_world.folder / "out").code == 0
    finally:
        os.umask(before)
    assert mode_of(plain_world.folder / "out") == 0o640


@pytest.mark.parametrize("exists", [True, False], ids=["existing", "dangling"])
def test_output_through_a_link_is_written_to_its_target(plain_world, writer, exists):
    target = plain_world.folder / "target"
    if exists:
        target.write_bytes(b"old")
    (plain_world.folder / "between").symlink_to("target")
    (plain_world.folder / "out").symlink_to(plain_world.folder / "between")
    assert writer[0](plain_world, plain_world.folder / "out").code == 0
    assert (plain_world.folder / "out").is_symlink() and (plain_world.folder / "between").is_symlink()
    assert target.read_bytes().startswith(writer[1])


def test_output_is_written_into_what_is_no_file(plain_world, writer):
    node = plain_world.folder / "out"
    os.mkfifo(node)
    got = []

    def read():
        with open(node, "rb") as pipe:
            got.append(pipe.read())

    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    assert writer[0](plain_world, node).code == 0
    assert stat.S_ISFIFO(node.stat().st_mode)
    reader.join()
    assert got[0].startswith(writer[1])


def test_output_goes_to_the_standard_output_alone(plain_world, writer):
    place = plain_world.folder / "stdout"  # as /dev/stdout, which no test may endanger
    place.symlink_to("/proc/self/fd/1")
    answer = writer[0](plain_world, place)
    assert answer.code == 0 and place.is_symlink()
    assert answer.out.startswith(writer[1].decode(errors="backslashreplace")) and str(place) not in answer.out


@pytest.mark.parametrize("place", ["missing/out", "folder", "file/out"])
def test_output_that_cannot_be_written_is_named(plain_world, writer, place):
    (plain_world.folder / "folder").mkdir()
    (plain_world.folder / "file").write_bytes(b"")
    answer = writer[0](plain_world, plain_world.folder / place)
    assert answer.code != 0 and str(plain_world.folder / place) in answer.err


# Property lists from anywhere.
@pytest.mark.parametrize("command", ["print", "check"])
def test_a_list_may_come_through_a_pipe(command):
    read, write = os.pipe()
    os.write(write, plistlib.dumps({"key": "value"}))
    os.close(write)
    answer = run("plist", command, "/dev/stdin", stdin=read)
    os.close(read)
    assert answer.code == 0 and ("value" in answer.out or command == "check")


@pytest.mark.parametrize("path", ["/dev/zero", "/", "/dev/null", "/no/such"])
def test_what_is_no_list_is_named(path):
    answer = run("plist", "print", path)
    assert answer.code != 0 and f"'{path}'" in answer.err
