#!/usr/bin/env python3
"""The pages agree with the tree: every relative link of README.md and docs/*.md resolves (a file
relative to the page, an #anchor one of the target page's headings makes), every path the
README's layout table names exists, and every folder of src/, daemon/ and tests/ (and every
top-level folder) is named there. Prints each finding; exits 1 on any."""
import glob
import os
import re
import subprocess
import sys

root = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
readme = os.path.join(root, "README.md")
pages = [readme] + sorted(glob.glob(os.path.join(root, "docs", "*.md")))
findings = []


def slug(heading):
    text = re.sub(r"[^\w\- ]", "", heading.strip().lower())
    return text.replace(" ", "-")


def anchors(path):
    found, seen, fenced = set(), {}, False
    with open(path, encoding="utf-8") as page:
        for line in page:
            if line.startswith("```"):
                fenced = not fenced
                continue
            match = re.match(r"^(#{1,6}) (.*)$", line)
            if match and not fenced:
                name = slug(match.group(2))
                count = seen.get(name, 0)
                seen[name] = count + 1
                found.add(name if count == 0 else f"{name}-{count}")
    return found


for page in pages:
    with open(page, encoding="utf-8") as handle:
        text = re.sub(r"```.*?```", "", handle.read(), flags=re.S)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        if re.match(r"^[a-z]+://", target):
            continue
        path, _, anchor = target.partition("#")
        dest = page if path == "" else os.path.normpath(os.path.join(os.path.dirname(page), path))
        name = os.path.relpath(page, root)
        if not os.path.exists(dest):
            findings.append(f"{name}: link to a missing file: {target}")
        elif anchor and dest.endswith(".md") and anchor not in anchors(dest):
            findings.append(f"{name}: link to a missing heading: {target}")

# The layout table: the rows between "## Layout" and the next heading of that level.
with open(readme, encoding="utf-8") as handle:
    layout = re.search(r"^## Layout\n(.*?)^## ", handle.read(), flags=re.S | re.M)
if layout is None:
    findings.append("README.md: no Layout section")
    named = set()
else:
    named = set()
    for row in re.findall(r"^\| (.*?) \|", layout.group(1), flags=re.M):
        for path in re.findall(r"`([^`]+)`", row):
            if "/" in path and not path.startswith("/"):
                named.add(path.rstrip("/"))
                if not os.path.exists(os.path.join(root, path)):
                    findings.append(f"README.md: the layout table names {path}, which does not exist")

tracked = subprocess.run(["git", "-C", root, "ls-files"], capture_output=True, text=True, check=True).stdout.split()
folders = set()
for path in tracked:
    parts = path.split("/")
    if len(parts) > 1 and not parts[0].startswith("."):
        folders.add(parts[0])
        if parts[0] in ("src", "daemon", "tests") and len(parts) > 2:
            folders.add("/".join(parts[:2]))
for folder in sorted(folders):
    if not any(n == folder or n.startswith(folder + "/") for n in named):
        findings.append(f"README.md: the layout table does not name {folder}/")

for finding in findings:
    print(finding)
print(f"docs: {len(findings)} findings in {len(pages)} pages")
sys.exit(1 if findings else 0)
