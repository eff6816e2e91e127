"""The Python package against the local account server: a whole session, errors as exceptions, callbacks on
the library's thread, and no handle left behind."""

import asyncio
import gc
import threading
from datetime import datetime, timezone

import pytest

import velmora
from velmora import _native, errors

FIELD = {"url": "", "title": "", "raw_title": "", "description": "", "raw_description": "", "active": True,
         "system": False, "regexp_for_validation": "", "created_at": "2026-01-05T10:00:00Z",
         "updated_at": "2026-01-05T10:00:00Z"}
PLAN = {**FIELD, "id": 1, "key": "plan", "type": "dropdown", "position": 0, "custom_field_options": [
    {"id": 11, "name": "Gold", "raw_name": "Gold", "url": "", "value": "gold", "position": 0},
    {"id": 12, "name": "Silver", "raw_name": "Silver", "url": "", "value": "silver", "position": 1}]}
SEATS = {**FIELD, "id": 2, "key": "seats", "type": "integer", "position": 1}


def test_a_whole_session(sdk, server):
    server.answer({"method": "GET", "path": "/api/mobile/user_fields.json", "times": 1,
                   "body": {"user_fields": [PLAN, SEATS]}})
    sdk.set_identity(velmora.Anonymous(name="Ann", email="ann@example.com"))
    assert (sdk.identity.name, sdk.identity.email) == ("Ann", "ann@example.com")

    assert sdk.user.get_user().result(10).name == "Ann"
    velmora.help_center.register_authentication_protocol()  # the token is held now: the article opens
    page = velmora.help_center.load(server.url + "/hc/articles/1").result(10)
    assert (page.status, b"<h1>Getting started</h1>" in page.body) == (200, True)
    assert sdk.user.add_tags(["vip", "early adopter"]).result(10).tags == ["vip", "early adopter"]
    assert sdk.user.delete_tags(["vip"]).result(10).tags == ["early adopter"]
    assert sdk.user.set_user_fields({"plan": "gold", "seats": 12}).result(10).user_fields == {
        "plan": "gold", "seats": "12"}
    plan, seats = sdk.user.get_user_fields().result(10)
    assert [option.value for option in plan.custom_field_options] == ["gold", "silver"]
    assert plan.created_at == datetime(2026, 1, 5, 10, tzinfo=timezone.utc)
    assert (seats.key, seats.type, seats.custom_field_options) == ("seats", "integer", None)

    assert sdk.push.register("device-1", "en-GB").result(10) == "device-1"
    sdk.push.unregister()
    core, blips = sdk.settings.core().result(10), sdk.settings.blips().result(10)
    assert (core.brand_id, core.identifier, core.authentication) == (1, "velmora-mock", "anonymous")
    assert blips.permissions == velmora.BlipsPermissions(required=True, trailmark=False, behavioural=True)
    sdk.blips.send(velmora.UserAction("1.0", "tapped", "python", "Session", value={"screen": 2}),
                   velmora.BlipsGroup.BEHAVIOURAL)

    assert velmora.wait_for_pending_requests(10)
    state = server.state()
    assert "device-1" not in state["devices"]
    sent = [e["userAction"] for e in state["events"] if e.get("userAction", {}).get("action") == "tapped"]
    assert [action["value"]["payload"] for action in sent] == [{"screen": 2}]


def test_failures_are_velmora_errors(sdk, server):
    sdk.set_identity(velmora.Jwt("jwt-of-bob"))
    assert sdk.identity == velmora.Jwt("jwt-of-bob")
    server.answer({"method": "POST", "path": "/api/mobile/push_notification_devices.json", "status": 500,
                   "body": {"error": "down"}, "times": 1})
    with pytest.raises(velmora.VelmoraError) as failed:
        sdk.push.register("device-2", "en").result(10)
    assert (failed.value.domain, failed.value.code, failed.value.user_info[errors.HTTP_STATUS_CODE_KEY]) == (
        errors.CORE_DOMAIN, errors.PUSH_REGISTRATION_FAILED, 500)

    with pytest.raises(velmora.VelmoraError) as refused:
        velmora.Velmora.initialize("app", "client", "ftp://example.com")
    assert (refused.value.domain, refused.value.code) == (errors.INTERFACE_DOMAIN, errors.REFUSED)


def test_callbacks_and_log_lines_arrive_on_a_library_thread_and_a_thousand_calls_leave_no_handle(sdk):
    sdk.set_identity(velmora.Anonymous(name="Cy"))
    answers, lines = [], []
    velmora.logger.set_callback(lambda level, message: lines.append((level, threading.current_thread())))
    velmora.logger.enabled = True
    try:
        assert sdk.user.get_user(lambda user, error: answers.append(
            (user.name, error, threading.current_thread()))).result(10).name == "Cy"

        async def awaited():
            return await asyncio.wrap_future(sdk.settings.core())

        assert asyncio.run(awaited()).brand_id == 1  # stored now: the calls below read the store
        assert velmora.wait_for_pending_requests(10)
    finally:
        velmora.logger.enabled = False
        velmora.logger.set_callback(None)
    main = threading.main_thread()
    assert [(name, error, thread is main) for name, error, thread in answers] == [("Cy", None, False)]
    assert lines and {(type(level), thread is main) for level, thread in lines} == {(velmora.LogLevel, False)}

    gc.collect()
    before = velmora.debug_live_handle_count()
    futures = [sdk.settings.core() for _ in range(1000)]
    assert all(sdk.identity.name == "Cy" for _ in range(1000))
    for _ in range(1000):
        with pytest.raises(velmora.VelmoraError) as invalid:
            sdk.blips.send(velmora.UserAction("1.0", "tapped", "python", "Session"), group=3)
    assert (invalid.value.domain, invalid.value.code) == (errors.INTERFACE_DOMAIN, errors.INVALID_ARGUMENT)
    assert all(future.result(10).brand_id == 1 for future in futures)

    assert velmora.wait_for_pending_requests(10)
    assert velmora.debug_live_handle_count() == before
    assert _native.pending_count() == 0
