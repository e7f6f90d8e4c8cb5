"""Arbitrary bytes in, the same bytes out: NUL, invalid UTF-8, non-ASCII text."""

import endpointregistry as er

ODD = [
    (b"nul\x00inside", b"\x00"),
    (b"\xff\xfe not utf-8", b"\xc3\x28"),
    ("gr\u00fc\u00dfe \u2603".encode(), b"plain"),
]


def test_bytes_come_back_as_bytes_and_as_str(tag):
    held = [er.publish(first, second, tag) for first, second in ODD]
    try:
        assert er.filter(tag, as_bytes=True) == sorted(ODD)
        as_text = er.filter(tag)
        back = [(f.encode("utf-8", "surrogateescape"), s.encode("utf-8", "surrogateescape")) for f, s in as_text]
        assert back == sorted(ODD)
        assert ("gr\u00fc\u00dfe \u2603", "plain") in as_text
        assert ("\udcff\udcfe not utf-8", "\udcc3(") in as_text
    finally:
        for endpoint in held:
            endpoint.reset()


def test_a_str_from_a_listing_withdraws_and_republishes_the_same_bytes(tag):
    with er.publish(b"\xff\x00", b"x", tag):
        [(first, second)] = er.filter(tag)
        assert first == "\udcff\x00"
        # The same bytes: a duplicate.
        try:
            er.publish(first, second, tag)
            raise AssertionError("a duplicate was published")
        except er.DuplicateEndpointError:
            pass
    with er.publish(first, second, tag):
        assert er.filter(tag, as_bytes=True) == [(b"\xff\x00", b"x")]


def test_group_tag_may_be_bytes(tag):
    with er.publish("a", "b", tag.encode() + b"\xff"):
        assert er.filter(tag.encode() + b"\xff") == [("a", "b")]
        assert er.filter(tag + "\udcff") == [("a", "b")]
