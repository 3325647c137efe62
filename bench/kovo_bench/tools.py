"""The tools and how each is asked to do the same job."""

import os
import shutil


def available(command):
    return shutil.which(str(command[0])) is not None


def downloads(build, url, out, secure=False):
    """Name -> command that downloads url into the file out."""
    folder, name = str(out.parent), out.name
    kovo = [build / "kovo", "get", "-q", "--force", "-o", out]
    bench = [build / "bench_get", url, out]
    curl = ["curl", "-sf", "-o", out, url]
    aria = ["aria2c", "-q", "--no-conf", "--allow-overwrite=true", "--file-allocation=none", "-x16",
            "-s16", "-k1M", "-d", folder, "-o", name, url]
    wget2 = ["wget2", "-q", "--no-config", "-O", out, url]
    axel = ["axel", "-q", "-n", "16", "-o", out, url]
    base, _, leaf = url.rpartition("/")
    rclone = ["rclone", "copyto", "--config", "/dev/null", "--http-url", base, ":http:" + leaf,
              out, "--multi-thread-streams", "4", "--multi-thread-cutoff", "10M", "-q"]
    if secure:
        kovo.append("--insecure")
        bench.append("--insecure")
        curl.append("-k")
        aria.append("--check-certificate=false")
        wget2.append("--no-check-certificate")
        axel.append("-k")
        rclone.append("--no-check-certificate")
    return {
        "kovo": kovo + [url],
        "kovo-4": kovo + ["--connections", "4", url],
        "bench_get": bench,
        "bench_get-4": bench + ["--connections", "4"],
        "curl": curl,
        "wget2": wget2,
        "aria2 -x16": aria,
        "axel -n16": axel,
        "rclone -4": rclone,
    }


def s3_uploads(build, port, source, scratch, parts_mib=16, at_once=4):
    """Name -> command that uploads source in parts to a path-style S3 endpoint on a port."""
    endpoint = f"http://127.0.0.1:{port}"
    aws_config = scratch / "aws-config"
    aws_config.write_text("[default]\nregion = us-east-1\ns3 =\n"
                          f"  multipart_chunksize = {parts_mib}MB\n  multipart_threshold = {parts_mib}MB\n"
                          f"  max_concurrent_requests = {at_once}\n  addressing_style = path\n")
    s3cmd_config = scratch / "s3cmd-config"
    s3cmd_config.write_text("[default]\naccess_key = key\nsecret_key = secret\nuse_https = False\n"
                            f"host_base = 127.0.0.1:{port}\nhost_bucket = 127.0.0.1:{port}\n"
                            "signature_v2 = True\n")
    aws = "/usr/bin/aws" if os.path.exists("/usr/bin/aws") else "aws"
    return {
        "kovo put --s3": [build / "kovo", "put", "-q", "--s3", "--part-size", f"{parts_mib}M",
                          "--connections", at_once, source, f"{endpoint}/bucket/file"],
        "bench_put": [build / "bench_put", source, f"{endpoint}/bucket/file", "--s3", "--connections",
                      at_once, "--chunk-size", parts_mib << 20],
        "awscli": ["env", f"AWS_CONFIG_FILE={aws_config}", "AWS_ACCESS_KEY_ID=key",
                   "AWS_SECRET_ACCESS_KEY=secret", "AWS_EC2_METADATA_DISABLED=true", aws, "s3", "cp",
                   "--only-show-errors", "--endpoint-url", endpoint, source, "s3://bucket/file"],
        "rclone": ["env", "-u", "AWS_CA_BUNDLE", "rclone", "copyto", "--config", "/dev/null", "-q", source,
                   f":s3,provider=Other,access_key_id=key,secret_access_key=secret,no_check_bucket,"
                   f"no_head,endpoint='{endpoint}':bucket/file", "--s3-chunk-size", f"{parts_mib}M",
                   "--s3-upload-cutoff", f"{parts_mib}M", "--s3-upload-concurrency", at_once],
        "s3cmd": ["s3cmd", "-q", "-c", s3cmd_config, "put", source, "s3://bucket/file",
                  f"--multipart-chunk-size-mb={parts_mib}"],
    }
