"""A private nginx on a free loopback port that serves one directory of files.

    server = NginxServer(work_dir, root_dir)
    server.start()
    url = server.url("/1k.bin")
    ...
    server.stop()

Its configuration keeps the measurement clean: no access log, keep-alive with a request limit
no benchmark reaches, and sendfile. It runs in the foreground without a master process; as root
it runs as root, so that it can read the temporary directory.
"""

import os
import socket
import subprocess
import time

NGINX = "/usr/sbin/nginx"
START_ATTEMPTS = 5
START_LIMIT_SECONDS = 15


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def accepts(port):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=0.5):
            return True
    except OSError:
        return False


class NginxServer:
    def __init__(self, work_dir, root_dir):
        self.work_dir = os.path.abspath(work_dir)
        self.root_dir = os.path.abspath(root_dir)
        self.port = None
        self.process = None
        os.makedirs(os.path.join(self.work_dir, "temp"), exist_ok=True)

    @property
    def pid_file(self):
        return os.path.join(self.work_dir, "nginx.pid")

    @property
    def error_log(self):
        return os.path.join(self.work_dir, "error.log")

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def config(self):
        d = self.work_dir
        temp = "".join("  %s_temp_path %s/temp/%s;\n" % (kind, d, kind)
                       for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        return (("user root;\n" if os.geteuid() == 0 else "") +
                "daemon off;\n"
                "master_process off;\n"
                "worker_processes 1;\n"
                "pid %s;\n"
                "error_log %s notice;\n"
                "events { worker_connections 4096; }\n"
                "http {\n"
                "  access_log off;\n"
                "  server_tokens off;\n"
                "%s"
                "  types { application/octet-stream bin; text/plain txt; }\n"
                "  default_type application/octet-stream;\n"
                "  sendfile on;\n"
                "  tcp_nopush on;\n"
                "  keepalive_timeout 60s;\n"
                "  keepalive_requests 10000000;\n"
                "  server {\n"
                "    listen 127.0.0.1:%d;\n"
                "    root %s;\n"
                "  }\n"
                "}\n") % (self.pid_file, self.error_log, temp, self.port, self.root_dir)

    def read_error_log(self):
        try:
            with open(self.error_log) as log:
                return log.read()
        except OSError:
            return ""

    def start(self):
        for _ in range(START_ATTEMPTS):
            self.port = free_port()
            conf = os.path.join(self.work_dir, "nginx.conf")
            with open(conf, "w") as out:
                out.write(self.config())
            open(self.error_log, "w").close()
            self.process = subprocess.Popen(
                [NGINX, "-p", self.work_dir + "/", "-c", conf, "-e", self.error_log],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            deadline = time.monotonic() + START_LIMIT_SECONDS
            while not accepts(self.port):
                if self.process.poll() is not None:
                    break
                if time.monotonic() > deadline:
                    self.stop()
                    raise RuntimeError("nginx did not listen in time:\n" + self.read_error_log())
                time.sleep(0.01)
            else:
                return
            log = self.read_error_log()
            self.process = None
            if "Address already in use" not in log:
                raise RuntimeError("nginx did not start:\n" + log)
        raise RuntimeError("nginx found no free port")

    def stop(self):
        if self.process is None:
            return
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process = None
