"""A workspace of one million variables for the browser benchmark.

Mostly integers, with floats, short texts and small lists mixed in so that the rows are not
all alike; no arrays, so that describing a row stays cheap and the figures measure the
paging rather than numpy.
"""

_COUNT = 1_000_000

_ns = globals()
for _i in range(_COUNT):
    _kind = _i % 10
    if _kind == 7:
        _ns[f"v{_i:07d}"] = _i / 7
    elif _kind == 8:
        _ns[f"v{_i:07d}"] = f"text {_i}"
    elif _kind == 9:
        _ns[f"v{_i:07d}"] = [_i, _i + 1]
    else:
        _ns[f"v{_i:07d}"] = _i
del _ns, _i, _kind
