#!/usr/bin/python3
"""paramweb in a real browser: headless chromium driven by selenium against
paramd and paramweb, every value checked against a direct JSON get on the
library's port.

usage: test_paramweb.py BUILD_DIR SOURCE_DIR
Exit 77 (skipped) only when chromium, its driver or selenium is missing."""
import fcntl, json, os, select, shutil, signal, socket, struct, subprocess, sys, tempfile, threading, time
import ssl, urllib.parse, urllib.request
from http.client import HTTPConnection, HTTPException

BUILD, SOURCE = sys.argv[1], sys.argv[2]
DEVICE = os.path.join(SOURCE, "examples/device")
MAP = os.path.join(DEVICE, "www2json.json")
CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.support import expected_conditions
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    webdriver = None
if not (CHROMIUM and DRIVER and webdriver):
    print("SKIP: chromium, chromium-driver or python3-selenium is not installed")
    sys.exit(77)

# Port 6800 is machine-wide: run in a private network namespace when one can
# be made, else queue on the lock the port tests share and use a free HTTP port.
# Root gets a plain network namespace, any other user one inside a user namespace.
if "PARAWEB_NETNS" not in os.environ and shutil.which("unshare"):
    env = dict(os.environ, PARAWEB_NETNS="1")
    flag = "-n" if os.geteuid() == 0 else "-rn"
    inner = ["unshare", flag, "--", "sh", "-c", 'ip link set lo up && exec "$@"', "sh", sys.executable] + sys.argv
    if subprocess.run(["unshare", flag, "true"], capture_output=True).returncode == 0:
        sys.exit(subprocess.run(inner, env=env).returncode)
if "PARAWEB_NETNS" in os.environ:
    http_port = 8080
else:
    lock = open("/tmp/para-port-6800.lock", "a")
    fcntl.flock(lock, fcntl.LOCK_EX)
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        http_port = s.getsockname()[1]
BASE = f"http://127.0.0.1:{http_port}"

mapping = json.load(open(MAP))
pages = {k: v for k, v in mapping.items() if isinstance(v, list) and not k.endswith("_pattern_list")}


def fields(page):
    """(field, module, member, mark) of a page, each field once, as paramweb shows them."""
    seen, out = set(), []
    for module in pages[page]:
        for member, entry in mapping.get(module, {}).items():
            if entry[0] not in seen:
                seen.add(entry[0])
                out.append((entry[0], module, member, entry[2] if len(entry) > 2 else ""))
    return out


def direct(request):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(2)
        s.sendto(json.dumps(request).encode(), ("127.0.0.1", 6800))
        return json.loads(s.recv(65536))


def library_values(page):
    """The library's values of a page's fields, as the form text shows them."""
    request = {"msg_type": "get"}
    for _, module, member, _ in fields(page):
        request.setdefault(module, []).append(member)
    reply, shown = direct(request), {}
    for field, module, member, mark in fields(page):
        v = reply.get(module, {}).get(member)
        if isinstance(v, str):
            shown[field] = v
        elif v is not None and mark == "K":  # exact, where the form text would round
            shown[field] = ("%.3f" % (v / 1000)).rstrip("0").rstrip(".")
        elif v is not None:
            shown[field] = "%.2f" % v if mark == "F" else str(v + 1 if mark == "P" else int(v))
    return shown


def check(ok, what):
    if not ok:
        raise AssertionError(what)
    print("ok:", what)


def wait_for(probe, what):
    for _ in range(100):
        try:
            return probe()
        except OSError:
            time.sleep(0.1)
    raise AssertionError(f"{what} did not come up")


def http(url, form=None, headers=None, cookie=None, token=True):
    """status and text of one request; a form goes with the session's cookie and
    token and the Origin of the server, as the server's own page sends it."""
    base = url[:url.index("/", 8)]
    headers = dict(headers or {})
    if form is not None:
        jar = sessions.setdefault(base, {})
        if "cookie" not in jar:
            status, page, jar["cookie"] = http_raw(base + "/login", None, {}, None)
            jar["token"] = page.split('name="_token" value="')[1].split('"')[0]
        cookie = cookie or jar["cookie"]
        form = dict(form, _token=jar["token"]) if token else form
        headers.setdefault("Origin", base)
    return http_raw(url, form, headers, cookie)[:2]


def http_raw(url, form, headers, cookie):
    req = urllib.request.Request(url, form and urllib.parse.urlencode(form).encode(), headers)
    if cookie:
        req.add_header("Cookie", cookie)
    try:
        with urllib.request.urlopen(req) as r:
            return r.status, r.read().decode(), (r.headers.get("Set-Cookie") or "").split(";")[0]
    except urllib.error.HTTPError as e:
        return e.code, e.read().decode(), (e.headers.get("Set-Cookie") or "").split(";")[0]


def http_status_of(url, body):
    base = url[:url.index("/", 8)]
    try:
        with urllib.request.urlopen(urllib.request.Request(url, body, {"Origin": base, "Cookie": sessions[base]["cookie"]})) as r:
            return r.status
    except urllib.error.HTTPError as e:
        return e.code
    except (ConnectionError, HTTPException):
        return 413  # the server may answer and close before the whole body is sent


sessions = {}
work = tempfile.mkdtemp(prefix="paramweb-test-")
procs = []
drv = None
try:
    log = open(os.path.join(work, "servers.log"), "w")
    procs.append(subprocess.Popen([f"{BUILD}/tools/paramd", "--ro", DEVICE, "--rw", work, "--log-level", "3", "--bind", "127.0.0.1"],
                                  stdout=log, stderr=log))
    wait_for(lambda: direct({"msg_type": "get", "msg_name": "up"}), "paramd")
    procs.append(subprocess.Popen([f"{BUILD}/tools/paramweb", "--listen", f"127.0.0.1:{http_port}", "--map", MAP],
                                  stdout=log, stderr=log))
    wait_for(lambda: urllib.request.urlopen(BASE + "/"), "paramweb")

    opts = webdriver.ChromeOptions()
    opts.binary_location = CHROMIUM
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--window-size=900,1200", f"--user-data-dir={work}/profile"):
        opts.add_argument(flag)
    drv = webdriver.Chrome(service=Service(DRIVER), options=opts)
    drv.implicitly_wait(10)  # a loaded machine renders slowly; nothing here waits for an absence

    def shown_values():
        return {i.get_attribute("name"): i.get_attribute("value")
                for i in drv.find_elements(By.CSS_SELECTOR, "input[name]:not([type=hidden])")
                if i.is_enabled() or i.get_attribute("value")}  # read-only fields show values too

    def submit(changes):
        for name, value in changes.items():
            field = drv.find_element(By.NAME, name)
            field.clear()
            field.send_keys(value)
        old = drv.find_element(By.TAG_NAME, "html")
        drv.find_element(By.CSS_SELECTOR, "button[type=submit]").click()
        # The answer is a new page: never read the status of the one before.
        WebDriverWait(drv, 20).until(expected_conditions.staleness_of(old))
        return WebDriverWait(drv, 20).until(lambda d: d.find_element(By.ID, "status")).text

    drv.get(BASE + "/")
    links = [a.text for a in drv.find_elements(By.CSS_SELECTOR, "ul.pages a")]
    check(links == list(pages), f"index lists every page entry: {links}")
    for page in pages:
        drv.get(f"{BASE}/page/{page}")
        check(shown_values() == library_values(page), f"page {page} shows the library's current values")

    # The sub stream's 512, which the form text rounds to 0.5, shows exactly.
    direct({"msg_type": "set", "video1": {"bitRate": 512}})
    drv.get(BASE + "/")
    drv.find_element(By.LINK_TEXT, "encode").click()
    WebDriverWait(drv, 20).until(lambda d: d.title == "encode")
    before = library_values("encode")
    check(before["sub_bitrate"] == "0.512" and shown_values()["sub_bitrate"] == "0.512",
          "a thousands value that the form text would round is shown exactly")
    untouched = direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]})
    check(submit({}) == "nothing changed, nothing sent", "an untouched page sends nothing")
    check(direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]}) == untouched,
          "saving an untouched page changes no value")
    # A browser without the page's script sends every field: paramweb still writes none.
    http(BASE + "/page/encode", before)
    check(direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]}) == untouched,
          "a full form of unchanged values changes no value")

    status = submit({"enc_bitrate": "3.5", "enc_gop": "45"})
    video0 = direct({"msg_type": "get", "video0": ["bitRate", "gop"]})["video0"]
    check(status == "saved: enc_bitrate, enc_gop" and video0 == {"bitRate": 3500, "gop": 45},
          f"a thousands field and a plain field are written: {status} {video0}")
    drv.save_screenshot(os.path.join(BUILD, "paramweb-encode.png"))
    drv.set_window_size(400, 900)
    drv.get(BASE + "/page/encode")
    wide = drv.execute_script("return [document.documentElement.scrollWidth, window.innerWidth]")
    drv.save_screenshot(os.path.join(BUILD, "paramweb-encode-phone.png"))
    check(wide[0] <= wide[1], f"at 400 px the page needs no horizontal scroll: {wide}")
    drv.set_window_size(900, 1200)
    drv.get(BASE + "/page/encode")
    shown = shown_values()
    check(shown["enc_bitrate"] == "3.5" and shown["enc_gop"] == "45" and shown == library_values("encode"),
          "the page shows the new values after a reload")
    check(direct({"msg_type": "get", "video1": ["bitRate"]})["video1"]["bitRate"] == 512,
          "the untouched rounded field kept its exact value")

    # What the camera refuses is reported as refused, with what it accepts, on
    # every page with a writable field; the typed value stays as a change.
    for page, field, bad, accepts in (("encode", "enc_gop", "1000", "1 to 300"), ("encode", "enc_codec", "H999", "one of H264"),
                                      ("image", "img_style", "9", "accepts"), ("audio", "aud_vol_l", "500", "accepts")):
        if page not in pages or field not in [f[0] for f in fields(page)]:
            continue
        drv.get(f"{BASE}/page/{page}")
        held = library_values(page)[field]
        status = submit({field: bad})
        note = drv.find_element(By.CSS_SELECTOR, "em.error").text
        check(status.startswith("not saved: " + field) and accepts in note and library_values(page)[field] == held and
              drv.find_element(By.NAME, field).get_attribute("value") == bad, f"{page}: {field}={bad} reported refused: {note}")
    drv.get(BASE + "/page/encode")
    check(shown_values()["enc_gop"] == "45", "the page shows the kept value")
    # Refused, then corrected: the valid change typed beside the refused one is not lost.
    submit({"enc_fps": "25", "enc_gop": "4x"})
    status = submit({"enc_gop": "40"})
    check(status == "saved: enc_fps, enc_gop" and direct({"msg_type": "get", "video0": ["frameRate", "gop"]})["video0"] ==
          {"frameRate": 25, "gop": 40}, f"a refused page keeps its other change: {status}")
    # A stale form without the script: what the camera changed meanwhile is not written over.
    status, page = http(BASE + "/page/encode")
    form = dict(x.split('" value="') for x in page.replace('name="', '\n').split("\n")[1:] if '" value="' in x)
    form = {k: v.split('"')[0] for k, v in form.items() if k != "_token"}
    direct({"msg_type": "set", "video0": {"frameRate": 20}})
    status, body = http(BASE + "/page/encode", dict(form, enc_gop="41"))
    check(status == 200 and direct({"msg_type": "get", "video0": ["frameRate", "gop"]})["video0"] ==
          {"frameRate": 20, "gop": 41}, "a stale form leaves what another client changed")
    status, body = http(BASE + "/page/encode", dict(form, enc_fps="24"))
    check(status == 400 and "changed on the camera since the page was shown (now 20)" in body, "a conflicting change is refused")
    if "lens" in pages:
        drv.get(BASE + "/page/lens")
        check(all(not i.is_enabled() for i in drv.find_elements(By.CSS_SELECTOR, "input[name]:not([type=hidden])")),
              "a module that takes no writes shows read-only fields")

    drv.get(BASE + "/page/encode")
    held = direct({"msg_type": "get", "video0": ["gop"], "video1": ["protocol"]})
    for bad, why in (("H264&x", '"&" or "="'), ("a=b", '"&" or "="'), ("x" * 32, "31 characters")):
        status = submit({"sub_codec": bad})
        note = drv.find_element(By.CSS_SELECTOR, "em.error").text
        check(status.startswith("nothing saved") and why in note, f"{bad!r} is refused in the page: {note}")
        drv.get(BASE + "/page/encode")
    status = submit({"enc_gop": "4x"})
    check(status.startswith("nothing saved"), "a number field refuses a text that is not a number")
    check(direct({"msg_type": "get", "video0": ["gop"], "video1": ["protocol"]}) == held, "refused values never reach the library")


    # A text the form would split is shown whole and read-only; status; reset to defaults.
    ip = direct({"msg_type": "get", "netport": ["ipaddr"]})["netport"]["ipaddr"]
    direct({"msg_type": "set", "netport": {"http_port": "80&net_ip=6.6.6.6"}})
    drv.get(BASE + "/page/network")
    http_field, ip_field = drv.find_element(By.NAME, "net_http"), drv.find_element(By.NAME, "net_ip")
    check(http_field.get_attribute("value") == "80&net_ip=6.6.6.6" and not http_field.is_enabled() and
          ip_field.get_attribute("value") == ip, "a text holding & and = is shown as held, read-only")
    direct({"msg_type": "set", "netport": {"http_port": "80"}})
    drv.get(BASE + "/status")
    check("version" in drv.find_element(By.CSS_SELECTOR, "table.status").text, "the status page shows the server's status")
    drv.get(BASE + "/page/encode")
    old = drv.find_element(By.TAG_NAME, "html")
    drv.find_element(By.CSS_SELECTOR, "form.reset button").click()
    WebDriverWait(drv, 20).until(expected_conditions.staleness_of(old))
    defaults = {m["member"]: m["def"] for m in direct({"msg_type": "getInfo", "msg_name": "describe", "module": "video0"})["members"]}
    now = direct({"msg_type": "get", "video0": ["all"]})["video0"]
    check(drv.find_element(By.ID, "status").text.startswith("reset to the camera's defaults") and
          all(now[k] == defaults[k] for k in ("gop", "frameRate", "bitRate", "protocol")), f"reset to defaults: {now}")

    for path, want in (("/page/nosuch", 404), ("/nosuch", 404), ("/static/layout.html", 404),
                       ("/static/nosuch.js", 404), ("/static/style.css", 200)):
        check(http(BASE + path)[0] == want, f"GET {path} answers {want}")
    check("No such page" in http(BASE + "/page/nosuch", {"a": "1"})[1], "a form for an unknown page is refused")
    # Other origins, other names, frames, missing tokens.
    gop = direct({"msg_type": "get", "video0": ["gop"]})
    for headers, why in (({"Origin": "http://127.0.0.2:9000"}, "another site"), ({"Origin": "null"}, "without Origin"),
                         ({"Origin": "null", "Referer": BASE + ".attacker.example/"}, "another site (Referer"),
                         ({"Host": "camera.attacker.example:8080"}, "not a name of this server")):
        status, body = http(BASE + "/page/encode", {"enc_gop": "7"}, headers)
        check(status == 403 and why in body, f"a write with {headers} is refused: {body.strip()}")
    check(http(BASE + "/page/encode", {"enc_gop": "7"}, token=False)[0] == 403, "a write without the token is refused")
    check(http(BASE + "/", headers={"Host": "rebind.example"})[0] == 403, "a page read under a foreign name is refused")
    attack = os.path.join(work, "attack.html")
    open(attack, "w").write(f'<form id=f method=post action="{BASE}/page/encode"><input name=enc_gop value=7></form>'
                            f'<script>fetch("{BASE}/page/encode",{{method:"POST",mode:"no-cors",body:"enc_gop=8",'
                            f'headers:{{"Content-Type":"application/x-www-form-urlencoded"}}}});f.submit()</script>')
    attacker = subprocess.Popen([sys.executable, "-m", "http.server", "9000", "--bind", "127.0.0.2", "--directory", work],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    procs.append(attacker)
    wait_for(lambda: urllib.request.urlopen("http://127.0.0.2:9000/attack.html"), "the other site")
    drv.get("http://127.0.0.2:9000/attack.html")
    time.sleep(1)
    check(direct({"msg_type": "get", "video0": ["gop"]}) == gop, "a form and a fetch from another site change nothing")
    attacker.terminate()
    procs.remove(attacker)
    r = urllib.request.urlopen(BASE + "/")
    check(r.headers["X-Frame-Options"] == "DENY" and "frame-ancestors 'none'" in r.headers["Content-Security-Policy"],
          "no other site may frame the pages")
    # Bodies are capped whatever the path or encoding; slow clients do not lock the owner out.
    big = b"x=" + b"y" * (1 << 20)
    for path in ("/page/encode", "/nosuch"):
        check(http_status_of(BASE + path, big) == 413, f"a 1 MiB body to {path}: 413")
    conn = HTTPConnection("127.0.0.1", http_port, timeout=10)
    conn.request("POST", "/nosuch", body=iter([b"y" * 65536] * 16), encode_chunked=True,
                 headers={"Transfer-Encoding": "chunked", "Origin": BASE, "Cookie": sessions[BASE]["cookie"]})
    check(conn.getresponse().status == 411, "a chunked body is not read: 411")
    # More half-sent requests than there are workers, from two other hosts: each keeps eight, the others are
    # closed before a worker reads them, and the owner's page still loads.
    def trickle(socks, data=b"X"):  # a byte now and then: no held connection meets the 5 s read time-out
        gone = set()
        for s in socks:
            try:
                s.send(data)
            except OSError:
                gone.add(s)
        return gone
    slow, talked = [], time.monotonic()
    for i in range(80):  # connecting can take seconds on a loaded machine: the first ones keep talking meanwhile
        slow.append(socket.create_connection(("127.0.0.1", http_port), source_address=(f"127.0.0.{2 + i % 2}", 0), timeout=10))
        trickle(slow[-1:], b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n")
        if time.monotonic() - talked > 1:
            trickle(slow)
            talked = time.monotonic()
    held, deadline = list(slow), time.monotonic() + 60
    while time.monotonic() < deadline and len(held) > 16:
        gone = set(select.select(held, [], [], 0.5)[0]) | trickle(held)
        held = [s for s in held if s not in gone]
    check(len(held) == 16 and not select.select(held, [], [], 0.3)[0],
          f"a host keeps eight connections, the others are closed ({80 - len(held)} closed)")
    served = []  # the owner asks while the sixteen keep trickling: locked out, the request would time out
    owner = threading.Thread(target=lambda: served.append(urllib.request.urlopen(BASE + "/", timeout=20).status))
    owner.start()
    while owner.is_alive():
        trickle(held)
        owner.join(1)
    check(served == [200] and not select.select(held, [], [], 0)[0], "80 slow connections leave the owner served")
    for s in slow:
        s.close()
    for form, note in (({"enc_bitrate": "4,5"}, "not a number"), ({"enc_gop": " 4"}, "not a whole number"),
                       ({"enc_gop": ""}, "not a whole number")):
        status, body = http(BASE + "/page/encode", form)
        check(status == 400 and note in body, f"{form} is answered 400 '{note}'")
    status, body = http(BASE + "/page/encode", {"enc_gop": "<'\">"})
    check(status == 400 and 'value="&lt;&#39;&quot;&gt;"' in body, "a refused value is shown escaped")
    status, body = http(BASE + "/page/encode", {"enc_gop": "46", "no_field": "1"})
    check(status == 200 and "saved: enc_gop" in body and
          direct({"msg_type": "get", "video0": ["gop"]})["video0"]["gop"] == 46, "a field not on the page is ignored")

    # A mapping paramd does not share: an unknown page, a long field name and
    # changes too large for one request. Bad start-up options first.
    web = lambda *a: subprocess.run([f"{BUILD}/tools/paramweb", *a], input="", capture_output=True, text=True, timeout=10)
    open(os.path.join(work, "empty.pw"), "w").close()
    for args, code, text in ((["--help"], 0, "usage: paramweb"), (["--listen", "x"], 2, "usage: paramweb"),
                             (["--bogus"], 2, "usage: paramweb"), (["extra"], 2, "usage: paramweb"),
                             (["--cert", MAP], 2, "usage: paramweb"),
                             (["--map", MAP, "--cert", MAP, "--key", MAP], 1, "cannot use certificate"),
                             (["--password-file", os.path.join(work, "empty.pw")], 1, "holds no password"),
                             (["passwd", os.path.join(work, "short.pw")], 1, "use at least 8 characters"),
                             (["--map", "/nonexistent"], 1, "cannot read the mapping file /nonexistent"),
                             (["--map", MAP, "--listen", f"127.0.0.1:{http_port}"], 1, "cannot listen on")):
        r = web(*args)
        check(r.returncode == code and text in r.stdout + r.stderr, f"paramweb {args}: {code}, {text}")
    big = {f"field_{i:02}_" + "x" * 20: [f"field_{i:02}_" + "x" * 20, "S"] for i in range(150)}
    json.dump({"ghost": ["video0"], "encode": ["video0", "big"], "big": big}, open(os.path.join(work, "map.json"), "w"))
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        base2 = "http://127.0.0.1:%d" % s.getsockname()[1]
    procs.insert(1, subprocess.Popen([f"{BUILD}/tools/paramweb", "--listen", base2[7:], "--map",
                                      os.path.join(work, "map.json")], stdout=log, stderr=log))
    wait_for(lambda: urllib.request.urlopen(base2 + "/"), "second paramweb")
    status, body = http(base2 + "/page/ghost")
    check(status == 502 and "does not know this page: ghost=null" in body, "a page paramd does not know: 502")
    check(http(base2 + "/page/encode", {k: "y" * 31 for k in big})[0] == 413, "a form body over 8 KB: 413")
    status, body = http(base2 + "/page/encode", {k: "y" * 31 for k in list(big)[:100]})
    check(status == 200 and "nothing changed, nothing sent" in body, "fields the camera does not report are never written")
    # An admin password: made by "paramweb passwd", required off loopback, asked for by a login page.
    pwfile = os.path.join(work, "admin.pw")
    r = subprocess.run([f"{BUILD}/tools/paramweb", "passwd", pwfile], input="correct horse\n", capture_output=True, text=True)
    check(r.returncode == 0 and open(pwfile).read().startswith("admin:$y$") and os.stat(pwfile).st_mode & 0o777 == 0o600
          and not os.path.exists(pwfile + ".tmp"), "paramweb passwd stores a yescrypt hash, readable by its owner only")
    victim = os.path.join(work, "victim")
    open(victim, "w").write("keep\n")
    os.symlink(victim, os.path.join(work, "planted.pw.tmp"))
    for target in (os.path.join(work, "planted.pw"), os.path.join(work, "no", "dir.pw")):
        r = subprocess.run([f"{BUILD}/tools/paramweb", "passwd", target], input="correct horse\n", capture_output=True, text=True)
        check(r.returncode == 1 and "cannot write" in r.stderr and not os.path.exists(target), f"passwd {target}: refused")
    check(open(victim).read() == "keep\n", "passwd does not write through a link planted at its temporary")
    r = web("--listen", "0.0.0.0:1", "--map", MAP)
    check(r.returncode == 1 and "not a loopback address" in r.stderr, "without a password file nothing off loopback is served")
    def free_port():
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            return s.getsockname()[1]
    port3, port4 = free_port(), free_port()
    base3 = f"http://127.0.0.1:{port3}"
    procs.insert(1, subprocess.Popen([f"{BUILD}/tools/paramweb", "--listen", f"[::]:{port3}", "--map", MAP,
                                      "--password-file", pwfile], stdout=log, stderr=log))
    wait_for(lambda: urllib.request.urlopen(base3 + "/login"), "paramweb with a password on [::]")
    drv.get(base3 + "/page/encode")
    check(drv.current_url == base3 + "/login", "a page asks for the login first")
    drv.find_element(By.NAME, "password").send_keys("correct horse")
    drv.find_element(By.CSS_SELECTOR, "button[type=submit]").click()
    WebDriverWait(drv, 20).until(lambda d: d.title == "Camera settings")
    drv.get(base3 + "/page/encode")
    check(drv.title == "encode", "after the login the pages show")
    drv.find_element(By.CSS_SELECTOR, "form.logout button").click()
    WebDriverWait(drv, 20).until(lambda d: d.current_url == base3 + "/login")
    drv.get(base3 + "/page/encode")
    check(drv.current_url == base3 + "/login", "after the logout the login is asked again")
    codes = [http(base3 + "/login", {"password": "guess"})[0] for _ in range(5)]
    status, body = http(base3 + "/login", {"password": "correct horse"})
    check(codes == [403] * 4 + [429] and status == 429 and "try again in" in body, f"failed logins lock out: {codes} {status}")
    # HTTPS with a certificate and key; the cookie is then only sent over it.
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj", "/CN=localhost",
                    "-keyout", f"{work}/key.pem", "-out", f"{work}/cert.pem"], capture_output=True, check=True)
    procs.insert(1, subprocess.Popen([f"{BUILD}/tools/paramweb", "--listen", f"127.0.0.1:{port4}", "--map", MAP,
                                      "--cert", f"{work}/cert.pem", "--key", f"{work}/key.pem"], stdout=log, stderr=log))
    tls = ssl.create_default_context(cafile=f"{work}/cert.pem")
    tls.check_hostname = False
    r = wait_for(lambda: urllib.request.urlopen(f"https://127.0.0.1:{port4}/", context=tls), "paramweb over HTTPS")
    check(r.status == 200 and "Secure" in r.headers["Set-Cookie"], "HTTPS serves the pages with a Secure cookie")

    procs[0].send_signal(signal.SIGTERM)
    check(procs[0].wait(timeout=10) == 0, "paramd stops")
    for form in (None, {"enc_gop": "47"}):
        status, body = http(BASE + "/page/encode", form)
        check(status == 502 and "no reply from the parameter server on port 6800" in body,
              f"{'POST' if form else 'GET'} with paramd gone: 502")
finally:
    if drv:
        drv.quit()
    for i, p in enumerate(reversed(procs)):
        p.send_signal(signal.SIGINT if i % 2 else signal.SIGTERM)
    codes = [p.wait(timeout=10) for p in procs]
    print(open(os.path.join(work, "servers.log")).read()[-2000:])
    shutil.rmtree(work, ignore_errors=True)
check(codes == [0] * len(codes), f"paramd and paramweb stop cleanly on their signals: {codes}")
