// The login, as a page and as a dialog over a page whose session has run out.
import { useEffect, useRef, useState } from 'preact/hooks'
import { ApiError, callOnce } from '../api'
import { CodeField } from '../codefield'
import { explain } from '../errors'
import { clock } from '../format'
import { session } from '../session'
import { t } from '../texts'
import { Button, Dialog, Field, LanguageChoice, Notice } from '../ui'

const TOO_MANY = 429

function wordsFor(failure: unknown): string {
  if (failure instanceof ApiError && failure.status === TOO_MANY)
    return failure.wait > 0
      ? t('login.throttledUntil', { time: clock(new Date(Date.now() + failure.wait * 1000)) })
      : t('login.throttled')
  if (failure instanceof ApiError && failure.kind === 'code') return t('login.refused')
  const { what, advice } = explain(failure)
  return `${what} ${advice}`.trim()
}

// Focuses a field when it appears.
function useFocus(wanted: boolean) {
  const field = useRef<HTMLInputElement>(null)
  useEffect(() => {
    if (wanted) field.current?.focus()
  }, [])
  return field
}

function LoginForm({ fixedUser }: { fixedUser?: string | undefined }) {
  const [user, setUser] = useState(fixedUser ?? '')
  const [password, setPassword] = useState('')
  const [code, setCode] = useState('')
  const [busy, setBusy] = useState(false)
  const [wrong, setWrong] = useState('')
  const userField = useFocus(fixedUser === undefined)
  const passwordField = useFocus(fixedUser !== undefined)

  // The button lost the focus while it was busy.
  useEffect(() => {
    if (wrong) passwordField.current?.focus()
  }, [wrong])

  const submit = async (event: Event) => {
    event.preventDefault()
    if (busy) return
    setBusy(true)
    setWrong('')
    try {
      const { sid, admin, enrol } = await callOnce<{
        sid: string
        admin: boolean
        enrol?: boolean
      }>('/fenro/login', code === '' ? { user, password } : { user, password, code })
      session.begin({ sid, user, admin, enrol, since: Date.now() })
    } catch (failure) {
      setWrong(wordsFor(failure))
      setBusy(false)
    }
    setPassword('')
    setCode('')
  }

  return (
    <form class="login" onSubmit={event => void submit(event)}>
      <Field label={t('login.user')}>
        {ids => (
          <input
            {...ids}
            name="user"
            autocomplete="username"
            maxLength={56}
            required
            ref={userField}
            readOnly={fixedUser !== undefined}
            value={user}
            onInput={event => setUser(event.currentTarget.value)}
          />
        )}
      </Field>
      <Field label={t('login.password')}>
        {ids => (
          <input
            {...ids}
            name="password"
            type="password"
            autocomplete="current-password"
            required
            ref={passwordField}
            value={password}
            onInput={event => setPassword(event.currentTarget.value)}
          />
        )}
      </Field>
      <CodeField label={t('login.code')} help={t('login.codeHelp')} code={code} onInput={setCode} />
      {wrong && <Notice tone="bad">{wrong}</Notice>}
      <Button kind="primary" submit busy={busy}>
        {t('login.go')}
      </Button>
    </form>
  )
}

export const LoginPage = () => (
  <main class="front">
    <div class="card">
      <h1>
        <img src="/assets/icon.svg" alt="" width="32" height="32" /> ormel
      </h1>
      <p class="lead">
        {t('login.lead')} <bdi>{location.host}</bdi>
      </p>
      <LoginForm />
      <LanguageChoice />
    </div>
  </main>
)

// The page below keeps its state and continues after the login.
export const LoginAgain = () => (
  <Dialog title={t('login.again')}>
    <p>{t('login.expired')}</p>
    <LoginForm fixedUser={session.login.value?.user} />
    <p class="row end">
      <button type="button" class="link" onClick={() => session.end()}>
        {t('login.other')}
      </button>
    </p>
  </Dialog>
)
