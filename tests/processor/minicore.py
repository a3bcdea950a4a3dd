"""Minicores of real crashes, made without the crash handler: gdb stops the client at its fault
and writes a full core (gcore), which is then cut down to what a minicore holds: the threads'
notes, each stack from its stack pointer up (capped), each ELF module's first page, and the
VELMORA note with the module lines at their lowest mappings.
    make(client_args, output, extra_lines='') -> the path written"""
import json
import os
import struct
import subprocess
import tempfile
import time

CRASHING_STACK, OTHER_STACK, STACKS_KEPT, RED_ZONE, PAGE = 8 << 20, 64 << 10, 256, 128, 4096
NT_PRSTATUS, NT_PRPSINFO, NT_AUXV, NT_SIGINFO, NT_FILE = 1, 3, 6, 0x53494749, 0x46494c45
SIGNALS = {4: 'SIGILL', 5: 'SIGTRAP', 6: 'SIGABRT', 7: 'SIGBUS', 8: 'SIGFPE', 11: 'SIGSEGV'}

# Runs inside gdb, stopped at the fault: the facts that a core does not hold, then the core.
GDB_SCRIPT = r'''
import gdb, json, os
pid = gdb.selected_inferior().pid
crashed = gdb.selected_thread().ptid[1]
# Through the crashing thread: a main thread that has ended leaves the process's own maps empty.
info = {'crashed': crashed, 'maps': open('/proc/%d/task/%d/maps' % (pid, crashed)).read(), 'pid': pid}
info['names'] = {t: open('/proc/%d/task/%s/comm' % (pid, t)).read().strip() for t in os.listdir('/proc/%d/task' % pid)}
siginfo = gdb.parse_and_eval('$_siginfo')
info['signal'], info['code'] = int(siginfo['si_signo']), int(siginfo['si_code'])
try:
    info['address'] = int(siginfo['_sifields']['_sigfault']['si_addr'])
except gdb.error:
    info['address'] = None
frames = []
try:
    frame = gdb.newest_frame()
    while frame is not None and len(frames) < 64:
        frames.append(frame.pc())
        frame = frame.older()
except gdb.error:  # damaged call-frame information ('unwind')
    pass
info['frames'] = frames
gdb.execute('gcore ' + os.environ['MINICORE_FULL'], to_string=True)
with open(os.environ['MINICORE_INFO'], 'w') as f:
    json.dump(info, f)
gdb.execute('kill')
'''


def notes_of(data, offset, size):
    end, at = offset + size, offset
    while at + 12 <= end:
        namesz, descsz, kind = struct.unpack_from('<III', data, at)
        name = data[at + 12:at + 12 + namesz].rstrip(b'\0')
        desc_at = at + 12 + (namesz + 3) // 4 * 4
        yield name, kind, data[desc_at:desc_at + descsz]
        at = desc_at + (descsz + 3) // 4 * 4


def note(name, kind, desc):
    name += b'\0'
    return (struct.pack('<III', len(name), len(desc), kind) + name + b'\0' * (-len(name) % 4)
            + desc + b'\0' * (-len(desc) % 4))


def segments_of(data):
    phoff, = struct.unpack_from('<Q', data, 32)
    phnum, = struct.unpack_from('<H', data, 56)
    return [struct.unpack_from('<IIQQQQQQ', data, phoff + 56 * i) for i in range(phnum)]


def build_id(image):
    """The GNU build ID in an ELF image's note segments, as hex, or None."""
    if image[:4] != b'\x7fELF':
        return None
    for kind, _, offset, _, _, filesz, _, _ in segments_of(image):
        if kind == 4:
            for name, note_kind, desc in notes_of(image, offset, filesz):
                if name == b'GNU' and note_kind == 3:
                    return desc.hex()
    return None


def parse_maps(text):
    maps = []
    for line in text.splitlines():
        fields = line.split(None, 5)
        start, end = (int(x, 16) for x in fields[0].split('-'))
        maps.append((start, end, fields[1], int(fields[2], 16), fields[5] if len(fields) > 5 else ''))
    return maps


AUXV_AND_SIGINFO = (NT_AUXV, NT_SIGINFO)


def kernel_file_note(desc):
    """NT_FILE as the kernel writes it: gcore gives byte offsets and a page size of 1."""
    count, page_size = struct.unpack_from('<QQ', desc)
    triples = [struct.unpack_from('<QQQ', desc, 16 + 24 * i) for i in range(count)]
    out = struct.pack('<QQ', count, PAGE)
    for start, end, offset in triples:
        out += struct.pack('<QQQ', start, end, offset * page_size // PAGE)
    return out + desc[16 + 24 * count:]


def cut(full, info, extra_lines=''):
    """The minicore of a full core, with the facts gdb gave."""
    loads = [s for s in segments_of(full) if s[0] == 1]

    def read(address, size):
        for _, _, offset, vaddr, _, filesz, memsz, _ in loads:
            if vaddr <= address and address + size <= vaddr + filesz:
                return full[offset + address - vaddr:offset + address - vaddr + size]
        return None

    threads, others = {}, []
    for _, _, offset, _, _, filesz, _, _ in (s for s in segments_of(full) if s[0] == 4):
        for name, kind, desc in notes_of(full, offset, filesz):
            if name == b'CORE' and kind == NT_PRSTATUS:
                threads[struct.unpack_from('<I', desc, 32)[0]] = bytearray(desc)
            elif name == b'CORE' and kind == NT_FILE:
                others.append(note(name, kind, kernel_file_note(desc)))
            elif name == b'CORE' and kind in (NT_PRPSINFO, AUXV_AND_SIGINFO[0], AUXV_AND_SIGINFO[1]):
                others.append(note(name, kind, desc))
    order = [info['crashed']] + sorted(t for t in threads if t != info['crashed'])
    maps = parse_maps(info['maps'])
    ranges = []
    for n, tid in enumerate(order):
        struct.pack_into('<h', threads[tid], 12, info['signal'] if n == 0 else 0)
        sp = struct.unpack_from('<Q', threads[tid], 112 + 19 * 8)[0]
        # A stack that overflowed has its pointer just below its mapping.
        mapping = next((m for m in maps if m[0] - PAGE <= sp < m[1]), None)
        if mapping and n < STACKS_KEPT:
            start = max(mapping[0], (sp - RED_ZONE) & ~(PAGE - 1))
            ranges.append((start, min(mapping[1], start + (CRASHING_STACK if n == 0 else OTHER_STACK))))
    modules = []
    for start, end, perms, offset, path in maps:
        if offset == 0 and path.startswith('/') and not any(m[2] == path for m in modules):
            header = read(start, PAGE)
            if header is None:
                with open(path, 'rb') as f:
                    header = f.read(PAGE)
            if header[:4] == b'\x7fELF':
                with open(path, 'rb') as f:
                    modules.append((start, build_id(f.read()) or 'none', path))
                ranges.append((start, start + PAGE))
    ranges.sort()
    merged = []
    for start, end in ranges:
        if merged and start <= merged[-1][1]:
            merged[-1] = (merged[-1][0], max(end, merged[-1][1]))
        else:
            merged.append((start, end))

    pc = struct.unpack_from('<Q', threads[info['crashed']], 112 + 16 * 8)[0]
    address = 'none' if info['address'] is None else '0x%016x' % info['address']
    text = ('VELMORA-CRASH 3\nversion: 3.0.0\npid: %d\ntime: %d\nsignal: %d %s\ncode: %d\naddress: %s\narch: x86_64\n'
            'capture: ptrace\nthreads: %d\n' % (info['pid'], time.time(), info['signal'], SIGNALS.get(info['signal'], 'SIG?'),
                                                info['code'], address, len(order)))
    text += ''.join('thread: %d %s\n' % (tid, info['names'].get(str(tid), '')) for tid in order)
    text += extra_lines
    text += ''.join('frame %d: 0x%016x\n' % (n, a) for n, a in enumerate([pc] + info['frames'][1:]))
    text += ''.join('module: 0x%016x %s %s\n' % m for m in modules)
    text += 'maps:\n' + info['maps']
    notes = b''.join(note(b'CORE', NT_PRSTATUS, bytes(threads[t])) for t in order) + b''.join(others)
    notes += note(b'VELMORA', 1, text.encode())

    datas = [read(start, end - start) or b'' for start, end in merged]
    offset = 64 + 56 * (1 + len(merged))
    headers = struct.pack('<IIQQQQQQ', 4, 0, offset, 0, 0, len(notes), 0, 4)
    offset += len(notes)
    for (start, end), data in zip(merged, datas):
        headers += struct.pack('<IIQQQQQQ', 1, 6, offset, start, 0, len(data), end - start, PAGE)
        offset += len(data)
    ident = b'\x7fELF\x02\x01\x01' + b'\0' * 9
    header = ident + struct.pack('<HHIQQQIHHHHHH', 4, 62, 1, 0, 64, 0, 0, 64, 56, 1 + len(merged), 0, 0, 0)
    return header + headers + notes + b''.join(datas)


def make(client_args, output, extra_lines=''):
    with tempfile.TemporaryDirectory() as scratch:
        full, info, script = (os.path.join(scratch, name) for name in ('full.core', 'info.json', 'script.py'))
        with open(script, 'w') as f:
            f.write(GDB_SCRIPT)
        done = subprocess.run(['gdb', '-batch', '-nx', '-q', '-ex', 'set disable-randomization off',
                               '-ex', 'set debuginfod enabled off', '-ex', 'run', '-ex', 'source ' + script, '--args', *client_args],
                              env=dict(os.environ, MINICORE_FULL=full, MINICORE_INFO=info), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=120)
        if not os.path.exists(info):
            raise RuntimeError('gdb made no core of %s:\n%s%s' % (' '.join(client_args), done.stdout, done.stderr))
        with open(full, 'rb') as f, open(info) as g:
            core = cut(f.read(), json.load(g), extra_lines)
    with open(output, 'wb') as f:
        f.write(core)
    return output
