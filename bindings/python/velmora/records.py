"""The library's records as dataclasses, read from the JSON form the C interface gives them in."""

import enum
from dataclasses import dataclass, field
from datetime import datetime, timezone
from typing import Any, Dict, List, Optional


def _date(text):
    return datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)


class LogLevel(enum.IntEnum):
    ERROR = 0
    WARN = 1
    INFO = 2
    DEBUG = 3
    VERBOSE = 4


class BlipsGroup(enum.IntEnum):
    """Which of the account's permissions an event needs."""

    REQUIRED = 0
    BEHAVIOURAL = 1
    TRAILMARK = 2


@dataclass(frozen=True)
class Jwt:
    """An end user identified by a token the host's own server issued."""

    token: str


@dataclass(frozen=True)
class Anonymous:
    """An end user without an account of their own; the GUID is filled only on the identity read back."""

    name: Optional[str] = None
    email: Optional[str] = None
    guid: Optional[str] = None


@dataclass(frozen=True)
class Page:
    """A help-centre page as it was answered: the HTTP status and the body's bytes."""

    status: int
    body: bytes


@dataclass
class User:
    id: str
    name: str
    agent: bool
    tags: List[str]
    user_fields: Dict[str, str]  # values as text
    content_url: str

    @classmethod
    def from_json(cls, value):
        return cls(
            id=str(value["id"]),
            name=value["name"],
            agent=value["agent"],
            tags=list(value["tags"]),
            user_fields=dict(value["user_fields"]),
            content_url=value["photo"]["content_url"],
        )


@dataclass
class UserFieldOption:
    id: str
    name: str
    raw_name: str
    url: str
    value: str
    position: int

    @classmethod
    def from_json(cls, value):
        return cls(**{**value, "id": str(value["id"])})


@dataclass
class UserField:
    id: str
    url: str
    key: str
    type: str  # "checkbox", "date", "decimal", "dropdown", "integer", "regexp", "text" or "textarea"
    title: str
    raw_title: str
    description: str
    raw_description: str
    position: int
    active: bool
    system: bool
    regexp_for_validation: str
    created_at: datetime
    updated_at: datetime
    custom_field_options: Optional[List[UserFieldOption]] = None

    @classmethod
    def from_json(cls, value):
        options = value.get("custom_field_options")
        return cls(
            **{
                **value,
                "id": str(value["id"]),
                "created_at": _date(value["created_at"]),
                "updated_at": _date(value["updated_at"]),
                "custom_field_options": None if options is None else [UserFieldOption.from_json(o) for o in options],
            }
        )


@dataclass
class CoreSettings:
    brand_id: int
    updated_at: datetime
    identifier: Optional[str]
    authentication: Optional[str]  # "jwt" or "anonymous"

    @classmethod
    def from_json(cls, value):
        return cls(value["brand_id"], _date(value["updated_at"]), value["identifier"], value["authentication"])


@dataclass
class BlipsPermissions:
    required: bool = False
    trailmark: bool = False
    behavioural: bool = False


@dataclass
class BlipsSettings:
    permissions: BlipsPermissions = field(default_factory=BlipsPermissions)

    @classmethod
    def from_json(cls, value):
        return cls(BlipsPermissions(**value["permissions"]))


@dataclass
class UserAction:
    """An analytics event for something the user did; `value` is any JSON-serialisable payload."""

    version: str
    action: str
    channel: str
    category: str
    label: Optional[str] = None
    value: Any = None


@dataclass
class PageView:
    """An analytics event for a page the user saw; `value` is any JSON-serialisable payload."""

    version: str
    channel: str
    url: str
    page_title: str
    navigator_language: str
    value: Any = None
