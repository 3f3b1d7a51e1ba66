// A user's own second factor: set-up with an authenticator app, recovery codes, and switching it off.
import { useState } from 'preact/hooks'
import { ApiError, call, data, saveFile } from '../api'
import { CodeField } from '../codefield'
import { labelOf } from '../model'
import { QrCode } from '../qr'
import { copyText, useKept } from '../secretonce'
import { session } from '../session'
import { t } from '../texts'
import { Button, Card, Dialog, Failure, Field, Notice, say, useJob } from '../ui'

export interface Factor {
  state: 'off' | 'pending' | 'on' | 'damaged'
  required: boolean
  recovery: number // codes that are left
}

const PPTP = 1
const L2TP = 2
const FEW = 3 // recovery codes
const NO_ACCESS = 45

// Protocols whose logins cannot carry a code.
export const hasNoCode = (type: number): boolean => type === PPTP || type === L2TP

// In groups of four, for typing.
export const grouped = (secret: string): string => secret.replace(/(.{4})(?=.)/g, '$1 ')

export const isCode = (text: string): boolean => {
  const plain = text.replace(/ /g, '')
  return /^[0-9]{6}$/.test(plain) || /^[a-z2-7]{4}-[a-z2-7]{4}-[a-z2-7]{4}$/i.test(plain)
}

function PasswordField({
  password,
  onInput,
}: {
  password: string
  onInput: (text: string) => void
}) {
  return (
    <Field label={t('factor.password')}>
      {ids => (
        <input
          {...ids}
          name="password"
          type="password"
          autocomplete="current-password"
          required
          value={password}
          onInput={event => onInput(event.currentTarget.value)}
        />
      )}
    </Field>
  )
}

// The limits on wrong passwords and codes have the code of a missing right.
const Refused = ({ failure }: { failure: unknown }) =>
  failure instanceof ApiError && failure.kind === 'code' && failure.code === NO_ACCESS ? (
    <Notice tone="bad">
      <strong>{t('factor.blocked')}</strong>
      <small class="soft">{failure.reason}</small>
    </Notice>
  ) : (
    <Failure failure={failure} />
  )

// The codes cannot be shown again.
function Recovery({ codes, onClose }: { codes: readonly string[]; onClose: () => void }) {
  const text = codes.join('\n') + '\n'
  const { keep, close } = useKept({
    title: t('factor.unkept'),
    text: t('factor.unkeptText'),
    onClose,
  })
  const copy = async () => {
    if (await copyText(text)) keep()
  }
  return (
    <Dialog title={t('factor.recovery')} onClose={close}>
      <Notice tone="good">
        <strong>{t('factor.isOn')}</strong>
        <span>{t('factor.recoveryText')}</span>
      </Notice>
      <pre class="codes" tabIndex={0} aria-label={t('factor.recovery')}>
        {text}
      </pre>
      <div class="row">
        <Button onClick={() => void copy()}>{t('peer.copy')}</Button>
        <Button onClick={() => (window.print(), keep())}>{t('factor.print')}</Button>
        <Button
          icon="download"
          onClick={() => (saveFile('recovery-codes.txt', new Blob([text])), keep())}
        >
          {t('factor.file')}
        </Button>
        <Button kind="primary" onClick={close}>
          {t('peer.done')}
        </Button>
      </div>
    </Dialog>
  )
}

interface Begun {
  secret: string
  uri: string
}

function SetUp({ begun, onDone }: { begun: Begun; onDone: (codes: string[]) => void }) {
  const [code, setCode] = useState('')
  const job = useJob()
  const send = async (event: Event) => {
    event.preventDefault()
    await job.run('confirm', async () => {
      const { recovery } = await data<{ recovery: string[] }>('my/totp_confirm', { code })
      onDone(recovery)
    })
    setCode('')
  }
  return (
    <form onSubmit={event => void send(event)}>
      <ol>
        <li>{t('factor.scan')}</li>
        <li>{t('factor.type')}</li>
      </ol>
      <div class="device">
        <QrCode text={begun.uri} label={t('factor.qr')} />
        <div>
          <p class="help">{t('factor.secret')}</p>
          <pre tabIndex={0} aria-label={t('factor.secret')}>
            {grouped(begun.secret)}
          </pre>
          <CodeField label={t('factor.code')} code={code} onInput={setCode} />
          <Refused failure={job.failure} />
          <Button kind="primary" submit busy={job.busy !== ''} disabled={!isCode(code)}>
            {t('factor.confirm')}
          </Button>
        </div>
      </div>
    </form>
  )
}

// The whole set-up, from the password to the recovery codes. A session that may do nothing else was begun with the
// password a moment ago.
function Enrol({
  byPassword,
  onBegin,
  onDone,
}: {
  byPassword: boolean
  onBegin?: () => void
  onDone: () => void
}) {
  const [begun, setBegun] = useState<Begun | null>(null)
  const [codes, setCodes] = useState<string[] | null>(null)
  const [password, setPassword] = useState('')
  const job = useJob()
  const begin = async (event: Event) => {
    event.preventDefault()
    await job.run('begin', async () => {
      setBegun(await data<Begun>('my/totp_begin', byPassword ? { password } : {}))
      onBegin?.()
    })
    setPassword('')
  }
  if (codes) return <Recovery codes={codes} onClose={onDone} />
  if (begun) return <SetUp begun={begun} onDone={setCodes} />
  return (
    <form onSubmit={event => void begin(event)}>
      {byPassword && <PasswordField password={password} onInput={setPassword} />}
      <Refused failure={job.failure} />
      <Button kind="primary" submit busy={job.busy !== ''} disabled={byPassword && password === ''}>
        {t('factor.begin')}
      </Button>
    </form>
  )
}

function SwitchOff({ onDone }: { onDone: () => void }) {
  const [password, setPassword] = useState('')
  const [code, setCode] = useState('')
  const job = useJob()
  const send = async (event: Event) => {
    event.preventDefault()
    await job.run('off', async () => {
      await call('my/totp_off', { password, code })
      say('factor.isOff')
      onDone()
    })
    setPassword('')
    setCode('')
  }
  return (
    <form onSubmit={event => void send(event)}>
      <p class="help">{t('factor.offHelp')}</p>
      <PasswordField password={password} onInput={setPassword} />
      <CodeField label={t('factor.code')} code={code} onInput={setCode} />
      <Refused failure={job.failure} />
      <Button
        kind="danger"
        submit
        busy={job.busy !== ''}
        disabled={!isCode(code) || password === ''}
      >
        {t('factor.off')}
      </Button>
    </form>
  )
}

// Notes whether the session may only set up a second factor.
function mustEnrol(enrol: boolean): void {
  const login = session.login.peek()
  if (login) session.begin({ ...login, enrol: enrol || undefined })
}

export function SecondFactor({
  factor,
  without,
  onChanged,
}: {
  factor: Factor
  without: readonly number[] // servers of this user that cannot ask for a code
  onChanged: () => void
}) {
  // A poll during the set-up must not remove it from the page.
  const [enrolling, setEnrolling] = useState(false)
  const on = factor.state === 'on' && !enrolling
  return (
    <Card title={t('factor.title')}>
      {factor.state === 'damaged' && <Notice tone="bad">{t('factor.damaged')}</Notice>}
      {on ? (
        <>
          <Notice tone="good">
            <strong>{t('factor.isOn')}</strong>
            <span>{t('factor.howTo')}</span>
          </Notice>
          {factor.recovery < FEW && <Notice>{t('factor.few', { n: factor.recovery })}</Notice>}
        </>
      ) : (
        <p class="help">{t(factor.required ? 'factor.required' : 'factor.why')}</p>
      )}
      {without.length > 0 && (
        <Notice>{t('factor.without', { servers: without.map(labelOf).join(', ') })}</Notice>
      )}
      {on && <SwitchOff onDone={factor.required ? () => mustEnrol(true) : onChanged} />}
      {!on && factor.state !== 'damaged' && (
        <Enrol
          byPassword
          onBegin={() => setEnrolling(true)}
          onDone={() => (setEnrolling(false), onChanged())}
        />
      )}
    </Card>
  )
}

// The only page of a user who must first set one up.
export function EnrolPage() {
  return (
    <main class="front">
      <div class="card">
        <h1>{t('factor.title')}</h1>
        <Notice>{t('factor.required')}</Notice>
        <Enrol byPassword={false} onDone={() => mustEnrol(false)} />
        <p class="row end">
          <button type="button" class="link" onClick={() => session.end()}>
            {t('login.other')}
          </button>
        </p>
      </div>
    </main>
  )
}
