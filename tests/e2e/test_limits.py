# The long options for a web UI: the progress channel with a stalled reader, a deadline,
# and archive budgets that every reader accepts.
import fcntl, json, os, re, time

import pytest

from support import EMULATED, collect, flat, script, sh, read_archive, read


@pytest.mark.skipif(EMULATED, reason='a matter of pipes and time, the same on every target')
def test_a_stalled_progress_reader_loses_lines_not_time(tmp):
    # First a name with a control byte and a backslash, which the channel escapes.
    config = 'cmd i,20,y,n odd /bin/echo \x01\\\n' + ''.join(f'file i,-,y,y f{i} {tmp}/q.conf\n' for i in range(150))
    os.mkfifo(f'{tmp}/fifo')
    received, flags = [], []

    def stall(pid):
        fd = os.open(f'{tmp}/fifo', os.O_RDONLY)
        time.sleep(5)
        # The description may be shared with others: its flags stay as they were.
        flags.append(int(re.search(r'flags:\s+(\d+)', read(f'/proc/{pid}/fdinfo/3')).group(1), 8))
        while piece := os.read(fd, 4096):
            received.append(piece.decode())
        os.close(fd)

    def into_fifo():
        fd = os.open(f'{tmp}/fifo', os.O_WRONLY)
        fcntl.fcntl(fd, fcntl.F_SETPIPE_SZ, 8192)  # two pages: full after a page of lines
        os.dup2(fd, 3)
    c = collect(tmp, config + 'cmd i,20,y,n wait /bin/sleep 6\n', ['-L', 'i', '--progress-fd=3'], in_child=into_fifo, during=stall)
    assert c.run.seconds < 6 + 1.5, 'the run waited for its reader'
    # Every line either arrived or is counted in the one LOST line.
    lines = ''.join(received).splitlines()
    lost = [line for line in lines if line.startswith('LOST ')]
    assert len(lost) == 1 and len(lines) - 1 + int(lost[0][5:]) == 1 + 2 * 152 + 1
    assert lines[-1].startswith('OK ') and flags[0] & os.O_NONBLOCK == 0
    assert lines[1] == 'START 1 cmd t/odd/@bin@echo_\\x01\\x5c.out'


@pytest.mark.parametrize('out', ['out.zip', '-'])
def test_the_deadline_skips_what_is_left(tmp, out):
    config = (f'cmd i,-,y,n a /bin/echo first\ncmd i,60,y,n slow /bin/sleep 30\ncmd i,-,y,n b /bin/echo never\n'
              f'file i,-,y,y f {tmp}/q.conf\n')
    c = collect(tmp, config, ['-L', 'i', '-v', '-b', '--deadline=1', '--manifest'], out, progress=True)
    assert c.run.seconds < (4.0 if EMULATED else 2.5)
    # The stopped command ends within half a second of the deadline: no kill grace is left
    # to run once it has been reaped (its END line's last field is its milliseconds).
    assert c.progress[4].split()[3] == 'timeout' and int(c.progress[4].split()[-1]) < 1500, c.progress[4]
    assert [line.split()[3] for line in c.progress[5:7]] == ['skipped', 'skipped']
    assert ('filename=t.zip\n' in c.header) == (out == '-')
    assert c.zip.names == ['t/README', 't/CONFIG', 't/a/@bin@echo_first.out', 't/slow/@bin@sleep_30.out',
                           't/slow/@bin@sleep_30.err', 't/SKIPPED', 't/MANIFEST.json']
    manifest = json.loads(c.zip.data('t/MANIFEST.json'))
    slow, end_ms = manifest['members'][3], int(c.progress[4].split()[-1])  # its duration: the command's part of its END
    assert (slow['name'], slow['result']['status']) == ('t/slow/@bin@sleep_30.out', 'timeout')
    assert end_ms / 2 < slow['duration_ms'] <= end_ms, (slow['duration_ms'], end_ms)
    assert [m['deflate'] for m in manifest['members']] == [{'engine': 'zlib', 'level': 6}] * 6
    assert [(s['number'], s['reason']) for s in manifest['skipped']] == [(3, 'deadline'), (4, 'deadline')]
    assert c.zip.data('t/SKIPPED') == f'deadline 3 cmd t/b/@bin@echo_never.out\ndeadline 4 file t/f/{flat(tmp)}@q.conf\n'
    assert 'Command Timeout' in c.zip.data('t/slow/@bin@sleep_30.err')
    # The time-out and the two entries skipped.
    assert 'Finished with 3 collection errors' in (c.run.err if out == '-' else c.run.out)


def test_budgets_hold_and_count_every_record(tmp):
    # A budget is used and never passed, plain, encrypted and stored, and counts every
    # record: README, CONFIG and SKIPPED are set aside first, and a budget too small for them
    # is refused with the least that fits, which then holds. The one member cut says where;
    # a cut command keeps its notes; the newest logs are kept; SKIPPED lists the entries
    # left out, or what fits and a count of the rest.
    # Rotated logs, newest first by age but not by name (app.log.10 is the oldest).
    sh('mkdir logs && for i in $(seq 0 10); do f=logs/app.log.$i; [ $i = 0 ] && f=logs/app.log; seq 3000 | awk -v s=$i '
       '\'{ print "event", ($1 * 7919 + s * 104729) % 1000003, "state", ($1 + s) % 97 }\' > $f; '
       'touch -d @$((1700000000 - i * 3600)) $f; done', cwd=tmp)
    by_age = [f't/logs/{flat(tmp)}@logs@app.log' + (f'.{i}' if i else '') for i in range(11)]
    logs = (f'cmd i,-,y,n id /bin/uname -a\nlog i,-,y,n logs {tmp}/logs/app.log*\n'
            'cmd i,-,y,n noise /bin/head -c 1500000 /dev/urandom\ncmd i,-,y,n after /bin/echo after\n')
    noisy = script(tmp, 'noisy', 'head -c 200000 /dev/urandom | base64 -w 0 >&2\nhead -c 300000 /dev/urandom\nexit 3\n')
    many = ''.join(f'cmd i,-,y,n e{i} /bin/echo {i}\n' for i in range(1, 601))
    cases = [('cmd i,-,y,n a /bin/echo a\n', '4096', 'plain', 'x' * 4000 + '.zip'),
             (f'cmd i,-,y,n n {noisy}\ncmd i,-,y,n e /bin/echo e\n', '20K', 'plain', 't.zip'), (many, '4096', 'plain', 't.zip')]
    cases += [(logs, budget, how, 't.zip') for budget in ('10K', '100K', '1M') for how in ('plain', 'encrypted', 'stored')]
    cut_note = re.compile(r"QUELVANE MSG: Data cut at (\d+) bytes, the archive's size limit\n")
    refused = '--max-size 4096 cannot hold README, CONFIG and SKIPPED: at least '
    for config, budget, how, archive in cases:
        args = ['-L', 'i', '--max-size=' + budget] + {'plain': [], 'encrypted': ['-e', '-P', 'secret'], 'stored': ['-C']}[how]
        password = 'secret' if how == 'encrypted' else ''
        if os.path.exists(f'{tmp}/out.zip'):
            os.unlink(f'{tmp}/out.zip')
        got = collect(tmp, config, args, password=password, archive=archive, status=None)  # which are flagged, a first look tells
        if got.run.status == 1 and got.run.err.startswith(refused):  # nothing written; the least it names fits
            assert not os.path.exists(f'{tmp}/out.zip')
            budget = got.run.err[len(refused):].split()[0]
            args[2] = '--max-size=' + budget
            got = collect(tmp, config, args, password=password, archive=archive, status=None)
        assert got.run.status == 0, got.run.err
        # Only collected files' ".err" members declare another size than they hold.
        got.zip = read_archive(got.path, [n for n in got.zip.names if n.startswith('t/logs/') and n.endswith('.err')])
        assert got.zip.problems == ''
        limit = int(budget.rstrip('KM')) << {'M': 20, 'K': 10}.get(budget[-1], 0)
        assert len(got.sent) <= limit
        top = archive[:-4] + '/'
        skipped = got.zip.data(top + 'SKIPPED')
        if config == many:
            last = skipped.splitlines()[-1]
            assert last.startswith('... and ') and len(skipped.splitlines()) - 1 + int(last[8:].split()[0]) == 600
        if budget == '20K':
            err = got.zip.data(f'{top}n/{flat(noisy)}.err')
            assert cut_note.search(err) and 'QUELVANE MSG: Child exited with 3: No such process\n' in err, err[:200]
        if config != logs:
            continue
        assert len(got.sent) > limit * 3 // 4, 'the budget not used'
        cuts = [(m.name, note) for m in got.zip.members if (note := cut_note.search(m.data))]
        assert len(cuts) == 1  # one member was cut, and its ".err" says at how many bytes
        name, note = cuts[0]
        assert len(got.zip.data(name[:-4] + ('' if name.startswith('t/logs/') else '.out'))) == int(note[1])
        assert 'max-size 4 cmd t/after/@bin@echo_after.out\n' in skipped
        kept = [got.zip.find(name) is not None for name in by_age]  # the logs kept are the newest
        assert kept[0] and kept == sorted(kept, reverse=True), kept
