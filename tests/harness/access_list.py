"""Published access lists, read as the sampling service reads them but independently of its code."""
import json
import zlib


def directory(sandbox):
    return sandbox.path / "platform/acl"


def path_of(sandbox, acl_id):
    return directory(sandbox) / f"{acl_id}.acl"


def published(sandbox, acl_id):
    """The list as a dictionary; None when it is not published. A file that is not whole is an error."""
    try:
        text = path_of(sandbox, acl_id).read_bytes()
    except FileNotFoundError:
        return None
    head, _, body = text.partition(b"\n")
    magic, version, checksum, length = head.split(b" ")
    assert (magic, version) == (b"sflow-access-list", b"1"), head
    assert int(length) == len(body), head
    assert int(checksum, 16) == zlib.crc32(body), head
    return json.loads(body)


def published_ids(sandbox):
    return sorted(int(path.stem) for path in directory(sandbox).glob("*.acl"))
