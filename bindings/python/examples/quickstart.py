"""The library from Python: initialise for an account, say who the user is, read their record.

    python3 quickstart.py ACCOUNT_URL

The library is found through VELMORA_CORE_LIBRARY, the installed package or the system's library path.
"""

import asyncio
import sys

import velmora


async def main(url):
    sdk = velmora.Velmora.initialize("quickstart-app", "quickstart-client", url)
    sdk.set_identity(velmora.Anonymous(name="Ann", email="ann@example.com"))
    try:
        user = await asyncio.wrap_future(sdk.user.get_user())
    except velmora.VelmoraError as error:
        print(f"could not read the user: {error.description}", file=sys.stderr)
        return 1
    print(f"signed in as {user.name} (user {user.id})")
    velmora.wait_for_pending_requests(10)  # lets events and unregistrations finish
    return 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: quickstart.py ACCOUNT_URL")
    sys.exit(asyncio.run(main(sys.argv[1])))
