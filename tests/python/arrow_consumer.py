"""A consumer of Arrow's capsules, made of the published structs only. It checks what it is given, and copies it."""
import ctypes as c


class Schema(c.Structure):
    pass


class Array(c.Structure):
    pass


class Stream(c.Structure):
    pass


Schema._fields_ = [("format", c.c_char_p), ("name", c.c_char_p), ("metadata", c.c_char_p), ("flags", c.c_int64),
                   ("n_children", c.c_int64), ("children", c.POINTER(c.POINTER(Schema))), ("dictionary", c.POINTER(Schema)),
                   ("release", c.CFUNCTYPE(None, c.POINTER(Schema))), ("private_data", c.c_void_p)]  # fmt: skip
Array._fields_ = [("length", c.c_int64), ("null_count", c.c_int64), ("offset", c.c_int64), ("n_buffers", c.c_int64),
                  ("n_children", c.c_int64), ("buffers", c.POINTER(c.c_void_p)), ("children", c.POINTER(c.POINTER(Array))),
                  ("dictionary", c.POINTER(Array)), ("release", c.CFUNCTYPE(None, c.POINTER(Array))),
                  ("private_data", c.c_void_p)]  # fmt: skip
Stream._fields_ = [("get_schema", c.CFUNCTYPE(c.c_int, c.POINTER(Stream), c.POINTER(Schema))),
                   ("get_next", c.CFUNCTYPE(c.c_int, c.POINTER(Stream), c.POINTER(Array))),
                   ("get_last_error", c.CFUNCTYPE(c.c_char_p, c.POINTER(Stream))),
                   ("release", c.CFUNCTYPE(None, c.POINTER(Stream))), ("private_data", c.c_void_p)]  # fmt: skip

_NUMBERS = {b"C": c.c_uint8, b"S": c.c_uint16, b"I": c.c_uint32, b"i": c.c_int32, b"L": c.c_uint64, b"g": c.c_double,
            b"tss:UTC": c.c_int64}  # fmt: skip
_pointer = c.pythonapi.PyCapsule_GetPointer
_pointer.restype, _pointer.argtypes = c.c_void_p, [c.py_object, c.c_char_p]


def struct_of(capsule, kind, name):
    return kind.from_address(_pointer(capsule, name))


def column_of(schema, array):
    """The values of a column as a list."""
    assert array.null_count == 0 and array.offset == 0
    assert array.n_buffers == (3 if schema.format == b"U" else 2) and not array.buffers[0]
    if array.length == 0:
        return []
    if schema.format == b"U":
        offsets = (c.c_int64 * (array.length + 1)).from_address(array.buffers[1])
        data = c.string_at(array.buffers[2], offsets[array.length]) if offsets[array.length] else b""
        return [data[offsets[i] : offsets[i + 1]].decode() for i in range(array.length)]
    values = list((_NUMBERS[schema.format] * array.length).from_address(array.buffers[1]))
    if schema.dictionary:
        words = column_of(schema.dictionary[0], array.dictionary[0])
        return [words[v] for v in values]
    return values


def batch_of(schema, array):
    assert schema.format == b"+s" and schema.n_children == array.n_children
    return {schema.children[i][0].name.decode(): column_of(schema.children[i][0], array.children[i][0])
            for i in range(schema.n_children)}  # fmt: skip


def read_stream(producer):
    """All batches of an object with __arrow_c_stream__, and the error that ended the stream."""
    capsule = producer.__arrow_c_stream__()
    stream = struct_of(capsule, Stream, b"arrow_array_stream")
    schema, batches, error = Schema(), [], None
    assert stream.get_schema(stream, schema) == 0
    while error is None:
        array = Array()
        if stream.get_next(stream, array) != 0:
            error = stream.get_last_error(stream).decode()
        elif not array.release:
            break
        else:
            batches.append(batch_of(schema, array))
            array.release(array)
            assert not array.release
    schema.release(schema)
    return batches, error
