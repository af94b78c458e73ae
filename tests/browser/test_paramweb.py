#!/usr/bin/python3
"""paramweb in a real browser: headless chromium driven by selenium against
paramd and paramweb, every value checked against a direct JSON get on the
library's port.

usage: test_paramweb.py BUILD_DIR SOURCE_DIR
Exit 77 (skipped) only when chromium, its driver or selenium is missing."""
import fcntl, json, os, shutil, signal, socket, struct, subprocess, sys, tempfile, time
import urllib.parse, urllib.request

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
if "PARAWEB_NETNS" not in os.environ and os.geteuid() == 0 and shutil.which("unshare"):
    env = dict(os.environ, PARAWEB_NETNS="1")
    inner = ["unshare", "-n", "--", "sh", "-c", 'ip link set lo up && exec "$@"', "sh", sys.executable] + sys.argv
    if subprocess.run(["unshare", "-n", "true"], capture_output=True).returncode == 0:
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
        elif v is not None and mark == "K":
            single = struct.unpack("f", struct.pack("f", v / 1000))[0]
            shown[field] = str(int(v / 1000)) if v % 1000 == 0 else "%.1f" % single
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


work = tempfile.mkdtemp(prefix="paramweb-test-")
procs = []
drv = None
try:
    log = open(os.path.join(work, "servers.log"), "w")
    procs.append(subprocess.Popen([f"{BUILD}/tools/paramd", "--ro", DEVICE, "--rw", work, "--log-level", "3"],
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
                for i in drv.find_elements(By.CSS_SELECTOR, "input[name]") if i.is_enabled()}

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

    # The sub stream's 512 shows as 0.5: saving it back would store 500.
    direct({"msg_type": "set", "video1": {"bitRate": 512}})
    drv.get(BASE + "/")
    drv.find_element(By.LINK_TEXT, "encode").click()
    WebDriverWait(drv, 20).until(lambda d: d.title == "encode")
    before = library_values("encode")
    check(before["sub_bitrate"] == "0.5", "a thousands value that the form text rounds is shown rounded")
    untouched = direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]})
    check(submit({}) == "nothing changed, nothing sent", "an untouched page sends nothing")
    check(direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]}) == untouched,
          "saving an untouched page changes no value")
    # A browser without the page's script sends every field: paramweb still writes none.
    urllib.request.urlopen(BASE + "/page/encode", urllib.parse.urlencode(before).encode())
    check(direct({"msg_type": "get", "video0": ["all"], "video1": ["all"]}) == untouched,
          "a full form of unchanged values changes no value")

    status = submit({"enc_bitrate": "3.5", "enc_gop": "45"})
    video0 = direct({"msg_type": "get", "video0": ["bitRate", "gop"]})["video0"]
    check(status == "result=success" and video0 == {"bitRate": 3500, "gop": 45},
          f"a thousands field and a plain field are written: {status} {video0}")
    drv.save_screenshot(os.path.join(BUILD, "paramweb-encode.png"))
    drv.get(BASE + "/page/encode")
    shown = shown_values()
    check(shown["enc_bitrate"] == "3.5" and shown["enc_gop"] == "45" and shown == library_values("encode"),
          "the page shows the new values after a reload")
    check(direct({"msg_type": "get", "video1": ["bitRate"]})["video1"]["bitRate"] == 512,
          "the untouched rounded field kept its exact value")

    submit({"enc_gop": "1000"})
    check(direct({"msg_type": "get", "video0": ["gop"]})["video0"]["gop"] == 45,
          "a value outside the range leaves the library's value")
    drv.get(BASE + "/page/encode")
    check(shown_values()["enc_gop"] == "45", "the page shows the kept value")

    for bad, why in (("H264&x", '"&" or "="'), ("a=b", '"&" or "="'), ("x" * 32, "31 characters")):
        status = submit({"sub_codec": bad})
        note = drv.find_element(By.CSS_SELECTOR, "em.error").text
        check(status.startswith("nothing saved") and why in note, f"{bad!r} is refused in the page: {note}")
        drv.get(BASE + "/page/encode")
    status = submit({"enc_gop": "4x"})
    check(status.startswith("nothing saved"), "a number field refuses a text that is not a number")
    check(direct({"msg_type": "get", "video0": ["gop"], "video1": ["protocol"]}) ==
          {"video0": {"gop": 45}, "video1": {"protocol": before["sub_codec"]}}, "refused values never reach the library")

    # HTTP without a browser: error statuses and the texts they carry.
    def http(url, form=None):
        try:
            with urllib.request.urlopen(url, form and urllib.parse.urlencode(form).encode()) as r:
                return r.status, r.read().decode()
        except urllib.error.HTTPError as e:
            return e.code, e.read().decode()

    for path, want in (("/page/nosuch", 404), ("/nosuch", 404), ("/static/layout.html", 404),
                       ("/static/nosuch.js", 404), ("/static/style.css", 200)):
        check(http(BASE + path)[0] == want, f"GET {path} answers {want}")
    check("No such page" in http(BASE + "/page/nosuch", {"a": "1"})[1], "a form for an unknown page is refused")
    for form, note in (({"enc_bitrate": "4,5"}, "not a number"), ({"enc_gop": " 4"}, "not a whole number"),
                       ({"enc_gop": ""}, "not a whole number")):
        status, body = http(BASE + "/page/encode", form)
        check(status == 400 and note in body, f"{form} is answered 400 '{note}'")
    status, body = http(BASE + "/page/encode", {"enc_gop": "<'\">"})
    check(status == 400 and 'value="&lt;&#39;&quot;&gt;"' in body, "a refused value is shown escaped")
    status, body = http(BASE + "/page/encode", {"enc_gop": "46", "no_field": "1"})
    check(status == 200 and "result=success" in body and
          direct({"msg_type": "get", "video0": ["gop"]})["video0"]["gop"] == 46, "a field not on the page is ignored")

    # A mapping paramd does not share: an unknown page, a long field name and
    # changes too large for one request. Bad start-up options first.
    web = lambda *a: subprocess.run([f"{BUILD}/tools/paramweb", *a], capture_output=True, text=True, timeout=10)
    for args, code, text in ((["--help"], 0, "usage: paramweb"), (["--listen", "x"], 2, "usage: paramweb"),
                             (["--bogus"], 2, "usage: paramweb"), (["extra"], 2, "usage: paramweb"),
                             (["--map", "/nonexistent"], 1, "cannot read the mapping file /nonexistent"),
                             (["--map", MAP, "--listen", f"127.0.0.1:{http_port}"], 1, "cannot listen on")):
        r = web(*args)
        check(r.returncode == code and text in r.stdout + r.stderr, f"paramweb {args}: {code}, {text}")
    big = {f"field_{i:02}_" + "x" * 20: [f"field_{i:02}_" + "x" * 20, "S"] for i in range(150)}
    json.dump({"ghost": ["video0"], "encode": ["video0", "big"], "image": ["long"], "big": big,
               "long": {"m": ["n" * 32, "N"]}}, open(os.path.join(work, "map.json"), "w"))
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
    check(status == 200 and "do not fit in one request" in body, "changes beyond one request are not sent")
    status, body = http(base2 + "/page/image", {"n" * 32: "1"})
    check(status == 400 and "field name longer than 31" in body, "a field name the form cannot carry")
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
