"""Helpers of the workspace browser host: display texts, change tracking and code execution.

Everything here runs on the host's interpreter thread. The host calls these functions with the
namespace of __main__; they never raise for a variable that misbehaves: a failing or huge repr,
len or sizeof gives a short placeholder instead.
"""

import ast
import collections
import io
import keyword
import math
import reprlib
import sys
import traceback
import types
import warnings

try:
    import numpy as np
except Exception:  # the host still works without numpy, only without array texts
    np = None

TIMES = "\u00d7"
VALUE_CHARS = 80  # the longest value text; longer values become a summary or are cut
OUTPUT_CHARS = 1 << 20  # captured console output is cut after this many characters


class BudgetExceeded(BaseException):
    """Raised into the interpreter thread when a repr or len runs past its time budget."""


_HIDDEN_TYPES = (types.ModuleType, type, types.FunctionType, types.BuiltinFunctionType,
                 types.MethodType)

_STAT_FIELDS = ("Min", "Max", "Range", "Mean", "Median", "Mode", "Var", "Std")

_short = reprlib.Repr()
_short.maxlevel = 3
_short.maxlist = _short.maxtuple = 12
_short.maxdict = _short.maxset = _short.maxfrozenset = 8
_short.maxstring = 60
_short.maxlong = 40
_short.maxother = 40


def _type_name(value):
    return type(value).__name__


def is_shown(name, value, show_all):
    """Whether a namespace entry is a workspace variable."""
    if not isinstance(name, str):
        return False
    if show_all:
        return True
    # type() rather than isinstance(): isinstance may run a user's __class__ property.
    return not name.startswith("_") and not issubclass(type(value), _HIDDEN_TYPES)


# ----------------------------------------------------------------------------------------------
# Change tracking: the host's scanner digests numbers, texts, arrays, lists, tuples, dicts, sets
# and bytearrays itself; for anything else it asks `parts` which objects make up its state.

def _is_pandas(value):
    module = getattr(type(value), "__module__", "")
    return isinstance(module, str) and module.startswith("pandas.")


def parts(value):
    """The objects whose contents make up `value`'s state, as a tuple, or None when it has none
    that can be read without running the user's code."""
    kind = type(value)
    if np is not None:
        if isinstance(value, np.ma.MaskedArray):
            return (value.view(np.ndarray), np.ma.getmaskarray(value))
        if isinstance(value, np.ndarray):  # matrices, memory maps and other subclasses
            return (value.view(np.ndarray),)
        if isinstance(value, np.generic):
            return (value.tobytes(), value.dtype.str)
    if _is_pandas(value):
        name = kind.__name__
        if name == "DataFrame":
            return (tuple(value._mgr.arrays), value.index, value.columns)
        if name == "Series":
            return (value._values, value.index)
        if name == "RangeIndex":
            return (value.start, value.stop, value.step)
        if name.endswith("Index"):
            return (value._values,)
    if kind is collections.deque:
        return (tuple(value),)
    if isinstance(value, _HIDDEN_TYPES):
        return None
    try:
        # The instance's own attributes, without going through a __getattr__ of the class.
        attributes = object.__getattribute__(value, "__dict__")
    except Exception:
        return None
    return (attributes,) if isinstance(attributes, dict) else None


# ----------------------------------------------------------------------------------------------
# Display texts: Python's own words. Class is the type's name (with the dtype for numpy and
# pandas objects), Size the shape or the length, Value a repr shortened the way numpy and
# reprlib shorten, statistics skip NaN as pandas does, and Bytes is the memory really held.

ARRAY_EDGE_ITEMS = 3  # a summarised array shows this many items at each end
ARRAY_THRESHOLD = 20  # arrays with more elements are summarised
DEEP_SIZE_OBJECTS = 10000  # a container's deep size counts at most this many objects


def format_number(x):
    """One statistic as the grid shows it: 5 significant digits, NaN, Inf and -Inf spelled out."""
    if isinstance(x, bool) or (np is not None and isinstance(x, np.bool_)):
        return str(int(x))
    if isinstance(x, int) or (np is not None and isinstance(x, np.integer)):
        return str(int(x))
    f = float(x)
    if math.isnan(f):
        return "NaN"
    if math.isinf(f):
        return "Inf" if f > 0 else "-Inf"
    return format(f, ".5g")


def _is_scalar_number(value):
    if isinstance(value, (bool, int, float, complex)):
        return True
    return np is not None and isinstance(value, np.generic) and value.dtype.kind in "biufc"


def _pandas_kind(value):
    """"DataFrame", "Series", "Index" or None, without importing pandas."""
    if not _is_pandas(value):
        return None
    for base in type(value).__mro__:
        if base.__name__ in ("DataFrame", "Series", "Index"):
            return base.__name__
    return None


def _times(shape):
    return TIMES.join(str(int(n)) for n in shape)


def _size_text(value):
    if np is not None and isinstance(value, np.ndarray):
        return _times(value.shape) if value.ndim else "1" + TIMES + "1"
    if _pandas_kind(value):
        return _times(value.shape)
    if value is None or _is_scalar_number(value):
        return "1" + TIMES + "1"
    if isinstance(value, (str, bytes, list, tuple, dict, set, frozenset)):
        return str(len(value))
    if hasattr(type(value), "__len__"):
        try:
            return str(len(value))
        except BaseException:
            return "?"
    return "1" + TIMES + "1"


def _class_text(value):
    kind = _pandas_kind(value)
    if kind == "DataFrame":
        return "DataFrame"
    if kind:
        return "%s %s" % (kind, value.dtype)
    if np is not None:
        if isinstance(value, np.ndarray):
            return "%s %s" % (_type_name(value), value.dtype.name)
        if isinstance(value, np.generic):
            return value.dtype.name
    return _type_name(value)


_ICONS = (
    (bool, "wsb-icon-bool"), (str, "wsb-icon-text"), (bytes, "wsb-icon-text"),
    (bytearray, "wsb-icon-text"), (dict, "wsb-icon-mapping"), (list, "wsb-icon-sequence"),
    (tuple, "wsb-icon-sequence"), (set, "wsb-icon-sequence"), (frozenset, "wsb-icon-sequence"),
    (collections.deque, "wsb-icon-sequence"),
)


def _icon_class(value):
    if _pandas_kind(value):
        return "wsb-icon-table"
    if np is not None and isinstance(value, np.ndarray):
        return "wsb-icon-array"
    if np is not None and isinstance(value, np.bool_):
        return "wsb-icon-bool"
    for kind, icon in _ICONS:
        if isinstance(value, kind):
            return icon
    if _is_scalar_number(value):
        return "wsb-icon-numeric"
    if issubclass(type(value), _HIDDEN_TYPES):
        return "wsb-icon-code"
    return "wsb-icon-object"


def _cut(text):
    """Cuts a text to the value width; returns (text, was_cut)."""
    if len(text) <= VALUE_CHARS:
        return text, False
    return text[: VALUE_CHARS - 3] + "...", True


def _one_line(text):
    return " ".join(text.split())


def _array_value(a):
    """numpy's own text of an array, summarised past ARRAY_THRESHOLD elements; masked
    elements show as --."""
    with np.printoptions(threshold=ARRAY_THRESHOLD, edgeitems=ARRAY_EDGE_ITEMS,
                         linewidth=10 ** 6):
        text = _one_line(str(a))
    text, cut = _cut(text)
    return text, cut or a.size > ARRAY_THRESHOLD


def _columns_text(names):
    return ", ".join(str(name) for name in names)


def _pandas_value(value, kind):
    if kind == "DataFrame":
        return _cut("DataFrame %s: %s" % (_times(value.shape), _columns_text(value.columns)))[0], True
    head = value[:ARRAY_EDGE_ITEMS * 2] if len(value) > ARRAY_EDGE_ITEMS * 2 else value
    items = ", ".join(_one_line(str(item)) for item in list(head))
    more = ", ..." if len(value) > len(head) else ""
    return _cut("%s %d: [%s%s]" % (kind, len(value), items, more))[0], True


def _placeholder(value, error):
    reason = "repr timed out" if isinstance(error, BudgetExceeded) else (
        "repr failed: " + type(error).__name__)
    return "<" + _type_name(value) + ": " + reason + ">"


def _value_text(value):
    """(text, is_summary) of the Value column."""
    try:
        if np is not None and isinstance(value, np.ndarray):
            return _array_value(value)
        kind = _pandas_kind(value)
        if kind:
            return _pandas_value(value, kind)
        if np is not None and isinstance(value, np.generic):
            return _cut(str(value))
        if isinstance(value, (str, bytes, list, tuple, dict, set, frozenset)):
            text = _short.repr(value)
            # reprlib marks what it left out with "...": such a text is not the whole value.
            cut_text, cut = _cut(text)
            return cut_text, cut or "..." in text
        text = repr(value)
        if not isinstance(text, str):
            raise TypeError("repr did not return a string")
        return _cut(_one_line(text) if "\n" in text else text)
    except BaseException as error:
        return _placeholder(value, error), True


def _numbers(value, limit):
    """The values statistics are computed over, as a flat float or integer array, or None.
    Complex values count by their magnitude; NaN stays in (the statistics skip it)."""
    if np is None:
        return None
    kind = _pandas_kind(value)
    if kind == "DataFrame":
        numeric = value.select_dtypes(include="number")
        if numeric.shape[1] == 0 or numeric.size > limit:
            return None
        array = numeric.to_numpy(dtype=np.float64).reshape(-1)
    elif kind == "Series":
        if value.size > limit or value.dtype.kind not in "biufc":
            return None
        array = value.to_numpy()
    elif isinstance(value, np.ma.MaskedArray):
        if value.size > limit or value.dtype.kind not in "biufc":
            return None
        array = value.compressed()
    elif isinstance(value, np.ndarray):
        if value.size > limit or value.dtype.kind not in "biufc":
            return None
        array = value.reshape(-1)
    elif isinstance(value, (list, tuple)):
        if not value or len(value) > limit or not all(
                type(x) in (int, float, bool) for x in value):
            return None
        array = np.asarray(value, dtype=np.float64 if any(
            type(x) is float for x in value) else np.int64)
    elif _is_scalar_number(value):
        array = np.asarray([value])
    else:
        return None
    if array.dtype.kind == "c":
        array = np.abs(array)
    elif array.dtype.kind == "b":
        array = array.astype(np.uint8)
    return array if array.size else None


def _statistics(value, limit):
    """The statistics texts, or None when they do not apply."""
    array = _numbers(value, limit)
    if array is None:
        return None
    with np.errstate(all="ignore"), warnings.catch_warnings():
        warnings.simplefilter("ignore")
        if array.dtype.kind == "f":
            present = array[~np.isnan(array)]
        else:
            present = array
        if present.size == 0:
            return dict.fromkeys(_STAT_FIELDS, "NaN")
        low, high = present.min().item(), present.max().item()
        span = high - low  # Python arithmetic: no overflow for integer types
        as_float = present.astype(np.float64)
        mean = as_float.mean()
        median = np.median(as_float)
        values, counts = np.unique(present, return_counts=True)
        mode = values[int(np.argmax(counts))].item()  # ties: the smallest value
        var = as_float.var(ddof=1) if present.size > 1 else float("nan")
        std = math.sqrt(var) if var >= 0 else float("nan")
    texts = [low, high, span, mean, median, mode, var, std]
    return dict(zip(_STAT_FIELDS, (format_number(t) for t in texts)))


def _array_bytes(a):
    # An array that owns its buffer holds all of it; a view holds none of its own, and shows
    # the bytes of its base that it spans (a broadcast view of one element spans 8 bytes, not
    # the gigabytes its shape suggests).
    if a.flags.owndata:
        return a.nbytes
    if a.size == 0:
        return 0
    return a.itemsize + sum((n - 1) * abs(stride) for n, stride in zip(a.shape, a.strides))


def _deep_size(value):
    """sys.getsizeof of a container and everything in it, each object once, stopping after
    DEEP_SIZE_OBJECTS objects."""
    seen = set()
    pending = [value]
    total = 0
    while pending and len(seen) < DEEP_SIZE_OBJECTS:
        item = pending.pop()
        if id(item) in seen:
            continue
        seen.add(id(item))
        total += sys.getsizeof(item)  # an array counts its buffer only when it owns it
        kind = type(item)
        if kind is dict:
            pending.extend(item.keys())
            pending.extend(item.values())
        elif kind in (list, tuple, set, frozenset, collections.deque):
            pending.extend(item)
    return total


def _bytes_text(value):
    try:
        if np is not None and isinstance(value, np.ndarray):
            return str(_array_bytes(value))
        kind = _pandas_kind(value)
        if kind in ("DataFrame", "Series"):
            usage = value.memory_usage(index=True, deep=False)
            return str(int(usage.sum() if kind == "DataFrame" else usage))
        if type(value) in (list, tuple, dict, set, frozenset, collections.deque):
            return str(_deep_size(value))
        return str(sys.getsizeof(value))
    except BaseException:
        return ""


def describe(ns, name, fields, compute_stats, limit, show_all):
    """One record, by column key ("Name", "Size", "Class", "Value", the statistics of
    _STAT_FIELDS, "Bytes"), plus the flags "isSummary" and "isDirty" and the row's "iconClass".
    The host fills its record by these keys, so a new column needs only its key here. A name
    that is no longer a shown variable comes back dirty."""
    if name not in ns or not is_shown(name, ns[name], show_all):
        return {"Name": name, "isDirty": True}
    value = ns[name]
    record = {"Name": name, "Size": _size_text(value), "Class": _class_text(value),
              "isSummary": False, "isDirty": False, "iconClass": _icon_class(value)}
    if "Value" in fields:
        record["Value"], record["isSummary"] = _value_text(value)
    if compute_stats and any(f in fields for f in _STAT_FIELDS):
        try:
            record.update(_statistics(value, limit) or {})
        except Exception:
            pass
    if "Bytes" in fields:
        record["Bytes"] = _bytes_text(value)
    return record


# ----------------------------------------------------------------------------------------------
# Workspace actions

def rename(ns, old, new):
    """Renames a variable; returns None or the reason it was refused."""
    if not isinstance(new, str) or not new.isidentifier() or keyword.iskeyword(new):
        return "Cannot rename '%s' to '%s': not a valid variable name." % (old, _cut(new)[0])
    if old not in ns:
        return "Cannot rename '%s': no such variable." % old
    if new == old:
        return None
    if new in ns:
        return "Cannot rename '%s' to '%s': the name is taken." % (old, new)
    ns[new] = ns.pop(old)
    return None


_LITERAL_TYPES = (bool, int, float, complex, str, bytes, type(None), list, tuple, dict, set,
                  frozenset)


def _same(a, b):
    """Whether two values are equal and of the same types all the way down."""
    if type(a) is not type(b):
        return False
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(_same(x, y) for x, y in zip(a, b))
    if isinstance(a, dict):
        return (len(a) == len(b) and all(_same(x, y) for x, y in zip(a, b))
                and all(_same(a[k], b[k]) for k in a))
    if isinstance(a, float) and math.isnan(a):
        return math.isnan(b)
    return a == b


def _number_text(x):
    # Python's repr of a float round-trips exactly; NaN and the infinities need numpy's names.
    if isinstance(x, float):
        if math.isnan(x):
            return "np.nan"
        if math.isinf(x):
            return "np.inf" if x > 0 else "-np.inf"
    return repr(x)


def _nested_text(items):
    if isinstance(items, list):
        return "[" + ", ".join(_nested_text(x) for x in items) + "]"
    return _number_text(items)


def _array_edit_text(a, limit):
    if type(a) is not np.ndarray or a.dtype.kind not in "biufc":
        return None, "only plain numeric arrays can be edited as text"
    if a.size * 2 > limit:
        return None, "%d elements are too many to edit in place" % a.size
    text = "np.array(%s, dtype=%s)" % (_nested_text(a.tolist()), repr(a.dtype.name))
    return text, None


def edit_text(ns, name, limit):
    """The Python text that recreates a variable exactly, for the grid's editor: (text, None),
    or (None, reason) when the value cannot be edited as text in place. Nothing the user wrote
    runs: builtin values are checked with ast.literal_eval, arrays are written out here."""
    if name not in ns:
        return None, "there is no variable '%s'" % _cut(str(name))[0]
    value = ns[name]
    if np is not None and isinstance(value, np.ndarray):
        text, reason = _array_edit_text(value, limit)
    elif np is not None and isinstance(value, np.generic) and value.dtype.kind in "biufc":
        text, reason = "np.%s(%s)" % (value.dtype.name, _number_text(value.item())), None
    elif type(value) is float:
        text, reason = _number_text(value), None
    elif type(value) in _LITERAL_TYPES:
        if isinstance(value, (str, bytes, list, tuple, dict, set, frozenset)) and (
                len(value) * 2 > limit):
            return None, "%d items are too many to edit in place" % len(value)
        text = repr(value)
        try:
            same = _same(ast.literal_eval(text), value)
        except Exception:
            same = False
        reason = None if same else "its text does not read back as the same value"
        if not same:
            text = None
    else:
        return None, "a %s cannot be edited as text; change it in the console" % _type_name(value)
    if text is not None and len(text) > limit:
        return None, "its text is %d characters, over the %d that can be edited in place" % (
            len(text), limit)
    return text, reason


def _edit_names(ns):
    # An edit text may name numpy as np even where the user's code has not imported it; the
    # user's own names always win.
    if np is None:
        return None
    extra = {alias: np for alias in ("np", "numpy") if alias not in ns}
    return extra or None


def delete(ns, names):
    """Deletes the named variables that exist; returns how many were deleted."""
    deleted = 0
    for name in names:
        if isinstance(name, str) and name in ns:
            del ns[name]
            deleted += 1
    return deleted


def assign(ns, name, text):
    """Evaluates `text` in the namespace and assigns it; returns None or the error."""
    if name not in ns:
        return "Cannot set '%s': no such variable." % name
    try:
        value = eval(compile(text, "<edit>", "eval"), ns, _edit_names(ns))
    except BaseException as error:  # SystemExit and KeyboardInterrupt too: keep the old value
        message = "%s: %s" % (type(error).__name__, error)
        return "Cannot set '%s' to %s: %s" % (name, _cut(repr(text))[0], _cut(message)[0])
    ns[name] = value
    return None


class _Capture:
    """What console code writes to stdout and stderr, in order, up to OUTPUT_CHARS characters."""

    def __init__(self):
        self.runs = []  # [is_stderr, text], consecutive writes to one stream joined
        self.length = 0
        self.cut = False

    def add(self, is_stderr, text):
        room = OUTPUT_CHARS - self.length
        if len(text) > room:
            text = text[:max(room, 0)]
            self.cut = True
        if not text:
            return
        if self.runs and self.runs[-1][0] == is_stderr:
            self.runs[-1][1] += text
        else:
            self.runs.append([is_stderr, text])
        self.length += len(text)

    def result(self):
        if self.cut:
            self.runs.append([True, "\n[output cut]\n"])
        return "".join(text for _, text in self.runs), [tuple(run) for run in self.runs]


class _CaptureStream(io.TextIOBase):
    """stdout or stderr while console code runs: a text sink feeding a _Capture."""

    def __init__(self, capture, is_stderr):
        super().__init__()
        self.capture = capture
        self.is_stderr = is_stderr

    def writable(self):
        return True

    def write(self, text):
        if not isinstance(text, str):
            raise TypeError("write() argument must be str, not " + _type_name(text))
        self.capture.add(self.is_stderr, text)
        return len(text)


def _print_error(error, stream):
    # Drops this module's frames so that tracebacks start in the user's code.
    tb = error.__traceback__
    while tb is not None and tb.tb_frame.f_code.co_filename == __file__:
        tb = tb.tb_next
    stream.write("".join(traceback.format_exception(type(error), error, tb)))


def _run(ns, source, filename, echo):
    tree = ast.parse(source, filename, "exec")
    last = None
    if echo and tree.body and isinstance(tree.body[-1], ast.Expr):
        last = ast.Expression(tree.body.pop().value)
    exec(compile(tree, filename, "exec"), ns)
    if last is not None:
        value = eval(compile(last, filename, "eval"), ns)
        if value is not None:
            ns["_"] = value
            try:
                text = repr(value)
            except BaseException as error:
                text = _placeholder(value, error)
            sys.stdout.write(text + "\n")


def run(ns, source, filename, echo, capture):
    """Runs code in the namespace. With `capture`, returns (output, failed, runs): what it wrote
    to stdout and stderr, and the same as (is_stderr, text) runs in order; otherwise it writes
    to the real streams and returns ("", failed, [])."""
    sink = _Capture() if capture else None
    saved = sys.stdout, sys.stderr
    if capture:
        sys.stdout, sys.stderr = _CaptureStream(sink, False), _CaptureStream(sink, True)
    failed = False
    try:
        try:
            _run(ns, source, filename, echo)
        except BaseException as error:  # SystemExit too: the host keeps running
            failed = True
            _print_error(error, sys.stderr)
    finally:
        sys.stdout, sys.stderr = saved
    if not capture:
        return "", failed, []
    output, runs = sink.result()
    return output, failed, runs


def needs_more_input(source):
    """Whether an interactive command is incomplete (the terminal asks for another line)."""
    import codeop
    try:
        return codeop.compile_command(source, "<stdin>", "single") is None
    except (SyntaxError, OverflowError, ValueError):
        return False


def run_script(ns, path):
    """Runs a script file as __main__ would; returns whether it failed."""
    try:
        with open(path, "rb") as handle:
            source = handle.read()
    except OSError as error:
        sys.stderr.write("Cannot read %s: %s\n" % (path, error.strerror or error))
        return True
    saved_argv, saved_file = sys.argv, ns.get("__file__")
    sys.argv = [path]
    ns["__file__"] = path
    try:
        return run(ns, source, path, False, False)[1]
    finally:
        sys.argv = saved_argv
        if saved_file is None:
            ns.pop("__file__", None)
        else:
            ns["__file__"] = saved_file
